"""vqlink between a broker and the agent: what is published is applied and reported, and nothing else changes the box."""

import json
import shutil

import pytest
from paho.mqtt.packettypes import PacketTypes
from paho.mqtt.properties import Properties

from box import BUILD, ROOT, STORE, ask, end, expect, instance_pid, message, run, vpn_config
from fleet_broker import SAVED, Authority
from fleet_world import BOX, DIRECTORY, Fleet, for_link, packed
from waiting import wait_until

DESIRED = f"kavel/{BOX}/desired"
PAYLOAD_MAX = 16 * 1024 * 1024 - 4096


@pytest.fixture
def fleet():
    world = Fleet()
    yield world.start()
    world.clean_up()


def configure(box, *vpns, **changes):
    box.configure(*(vpns or (vpn_config(7), vpn_config(8))), **for_link(store=str(STORE), **changes))


@pytest.fixture
def box(box):
    """A box that admits the link, with an empty store. Its agent is not started."""
    shutil.rmtree(STORE.parent, ignore_errors=True)
    configure(box)
    return box


@pytest.fixture
def link(fleet, box):
    """The link of a box whose agent runs."""
    box.start()
    started = fleet.link().start()
    fleet.controller.wait_online()
    return started


def serving(address, vpn=7, **changes):
    """A message with one host, whose address tells messages apart."""
    return message(vpn, dnshosts=[{"domain": f"nas.vpn{vpn}.example", "ip": address}], **changes)


def expect_host(address, vpn=7):
    expect(address, f"nas.vpn{vpn}.example", vpn=vpn)


def applied_revisions(box, vpn=7):
    """Of the messages that the agent keeps, the newest first."""
    return [entry["revision"] for entry in json.loads(box.vqctl("history", vpn, "--json").stdout)["messages"]]


# ---- what is published is applied and reported ----


def test_a_published_message_is_applied_and_reported(fleet, link, box):
    fleet.controller.publish(serving("192.168.7.11"), 1)
    report = fleet.controller.wait_report(revision=1)
    assert report == {"schema": 1, "revision": 1, "result": "applied", "inForce": 1, "enabled": True, "running": True,
                      "time": report["time"]}
    expect_host("192.168.7.11")
    fleet.controller.publish(serving("192.168.7.12", operation="reload"), 2)
    fleet.controller.wait_report(revision=2, result="applied", inForce=2)
    expect_host("192.168.7.12")
    fleet.controller.publish(message(7, enable=False), 3)
    fleet.controller.wait_report(revision=3, result="applied", enabled=False, running=False)
    assert ask("nas.vpn7.example") == []


def test_presence_is_that_of_the_link(fleet, link):
    assert fleet.controller.presence()["version"]
    link.kill()
    fleet.controller.wait_online(online=False)
    link.start()
    fleet.controller.wait_online()
    assert link.stop() == 0
    fleet.controller.wait_online(online=False)
    assert "ERROR" not in link.log()


def test_a_box_that_slept_gets_exactly_the_last_message(fleet, box):
    box.start()
    link = fleet.link().start()
    fleet.controller.publish(serving("192.168.7.1"), 1)
    fleet.controller.wait_report(revision=1)
    link.stop()
    for revision in (2, 3, 4, 5):
        fleet.controller.publish(serving(f"192.168.7.{revision}"), revision)
    link.start()
    fleet.controller.wait_report(revision=5, inForce=5)
    expect_host("192.168.7.5")
    assert applied_revisions(box) == ["5", "1"]


def test_a_revision_that_is_not_newer_is_reported_as_it_stands(fleet, link, box):
    fleet.controller.publish(serving("192.168.7.11"), 10)
    fleet.controller.wait_report(revision=10)
    pid = instance_pid()
    link.stop()
    fleet.controller.publish(serving("192.168.7.66"), 9)
    link.start()
    link.wait_log("vpn 7: revision 9 is not newer")
    assert fleet.controller.wait_report(revision=10, inForce=10, running=True)["result"] == "applied"
    expect_host("192.168.7.11")
    assert instance_pid() == pid
    assert applied_revisions(box) == ["10"]


def test_a_refused_message_is_reported_with_its_field(fleet, link):
    fleet.controller.publish(serving("192.168.7.11"), 1)
    fleet.controller.wait_report(revision=1)
    fleet.controller.publish(serving("192.168.7.12", dnsservers=[{"dnsserver": "10.7.0.53", "ifname": "../eth0"}]), 2)
    report = fleet.controller.wait_report(revision=2, result="refused", inForce=1, running=True)
    assert report["reason"].startswith("dnsservers[0].ifname is not an interface name")
    expect_host("192.168.7.11")
    # A link that did not hear the answer reports the same.
    link.kill()
    fleet.controller.put(f"kavel/{BOX}/desired/8", b"")
    fleet.controller.state.clear()
    link.start()
    again = fleet.controller.wait_report(revision=2, result="refused", inForce=1)
    assert again["reason"] == report["reason"]


def test_what_the_module_refuses_is_reported_with_its_field(fleet, link):
    bad = [{"domain": "good.example", "ip": "10.0.0.1"}, {"domain": "bad_name.example", "ip": "10.0.0.1"}]
    fleet.controller.publish(message(7, dnshosts=bad), 1)
    report = fleet.controller.wait_report(revision=1, result="refused")
    assert report["reason"] == "dnsmasq dns host[1].domain is invalid"


def test_what_is_in_force_without_an_instance_is_reported(fleet, box):
    configure(box, watch={"repair": False})
    box.start()
    fleet.link().start()
    fleet.controller.publish(serving("192.168.7.11"), 1)
    fleet.controller.wait_report(revision=1, running=True)
    end(instance_pid())
    report = fleet.controller.wait_report(revision=1, running=False, reason=bool)
    assert (report["enabled"], report["inForce"]) == (True, 1)
    assert box.vqctl("repair", "--vpn", 7).returncode == 0
    fleet.controller.wait_report(revision=1, running=True, reason=None)


def test_what_an_operator_applies_is_reported(fleet, link, box):
    fleet.controller.publish(serving("192.168.7.11"), 1)
    fleet.controller.wait_report(revision=1)
    box.apply(serving("192.168.7.77"))
    fleet.controller.wait_report(revision=1, inForce=None)
    expect_host("192.168.7.77")
    assert box.vqctl("stop", "--vpn", 7).returncode == 0
    fleet.controller.wait_report(revision=1, inForce=None, enabled=False, running=False)
    fleet.controller.publish(serving("192.168.7.12"), 2)
    fleet.controller.wait_report(revision=2, inForce=2)


def test_a_message_for_a_pop_is_applied_and_reported(fleet, box):
    run(ROOT / "scripts/lab", "pop")
    configure(box, platform="pop", vpns=[], c2p=["c2p*"])
    box.start()
    fleet.link().start()
    fleet.controller.put(f"{DESIRED}/0", packed({"enable": True, "dns": ["10.9.0.53"], "localip": "10.88.0.1"}), 1, "pop")
    fleet.controller.wait_report(0, revision=1, result="applied", inForce=1, enabled=True, running=True)

    def answer():
        return run("ip", "netns", "exec", "branch", "dig", "+short", "+time=1", "+tries=1", "@192.0.2.53",
                   "www.example.net", check=False).stdout.split()

    wait_until(lambda: answer() == ["198.51.100.10"], "an answer through the POP")
    fleet.controller.put(f"{DESIRED}/0", packed(serving("192.168.7.66")), 2, "cpe")
    report = fleet.controller.wait_report(0, revision=2, result="refused", inForce=1)
    assert report["reason"] == "pop: the message is for a CPE, and the box is a POP"
    assert answer() == ["198.51.100.10"]
    run("nft", "flush", "ruleset")


# ---- garbage ----


def garbage():
    """Name, payload, revision, platform, and what the report says of it."""
    good = packed(serving("192.168.7.66"))
    return [("no revision", good, None, "cpe", "revision: it is missing"),
            ("zero", good, "0", "cpe", 'revision: it is "0"'),
            ("sign", good, "-5", "cpe", 'revision: it is "-5"'),
            ("text", good, "newest", "cpe", 'revision: it is "newest"'),
            ("past 63 bits", good, str(2**63), "cpe", "revision: it is"),
            ("long revision", good, "9" * 60000, "cpe", "revision: it is"),
            ("empty", b"", "100", "cpe", "the message is empty"),
            ("cleared", b"", None, None, "the message is empty"),
            ("platform", good, "100", "router", 'revision 100: platform: it is "router"'),
            ("over the limit", bytes(PAYLOAD_MAX + 1), "100", "cpe", "revision 100: it has 16773121 bytes")]


def test_what_cannot_be_used_is_told_and_changes_nothing(fleet, link):
    fleet.controller.publish(serving("192.168.7.11"), 1)
    fleet.controller.wait_report(revision=1)
    pid = instance_pid()
    for name, payload, revision, platform, problem in garbage():
        fleet.controller.put(f"{DESIRED}/7", payload, revision, platform)
        report = fleet.controller.wait_report(problem=lambda told: problem in (told or ""))
        assert (report["revision"], report["inForce"], report["running"]) == (1, 1, True), name
        fleet.controller.publish(serving("192.168.7.11"), 1)
        fleet.controller.wait_report(problem=None)
    assert instance_pid() == pid
    expect_host("192.168.7.11")
    assert link.is_running()


def refused_garbage():
    """Name, payload, platform, and the reason of the refusal."""
    return [("bytes", b"\xff" * 100, "cpe", ""),
            ("for another VPN", packed(serving("192.168.8.66", 8)), "cpe", "vpn: it is 7"),
            ("for a POP", packed(serving("192.168.7.66")), "pop", "pop: the message is for a POP"),
            ("at the limit", bytes(PAYLOAD_MAX), "cpe", "")]


def test_what_the_agent_refuses_changes_nothing(fleet, link):
    fleet.controller.publish(serving("192.168.7.11"), 1)
    fleet.controller.wait_report(revision=1)
    pid = instance_pid()
    for revision, (name, payload, platform, reason) in enumerate(refused_garbage(), 2):
        fleet.controller.put(f"{DESIRED}/7", payload, revision, platform)
        report = fleet.controller.wait_report(revision=revision, result="refused")
        assert reason in report["reason"] and report["reason"], name
        assert (report["inForce"], report["running"]) == (1, True), name
    assert instance_pid() == pid
    expect_host("192.168.7.11")


def test_an_unknown_vpn_is_refused_until_it_is_configured(fleet, box):
    configure(box, vpn_config(8))
    box.start()
    link = fleet.link().start()
    fleet.controller.publish(serving("192.168.7.11"), 5)
    report = fleet.controller.wait_report(revision=5, result="refused")
    assert "vpn" in report["reason"]
    configure(box)
    run("kill", "-HUP", box.agent.pid)
    fleet.controller.wait_report(revision=5, result="applied", inForce=5)
    expect_host("192.168.7.11")
    assert link.is_running()


def test_foreign_topics_are_dropped(fleet, link):
    fleet.controller.publish(serving("192.168.7.11"), 1)
    fleet.controller.wait_report(revision=1)
    payload = packed(serving("192.168.7.66"))
    for vpn in ("07", "-7", "4294967296", "seven", "", "7 ", "é"):
        fleet.controller.put(f"{DESIRED}/{vpn}", payload, 2)
    link.wait_log("is not for this box", 7)
    fleet.controller.publish(serving("192.168.7.12"), 3)
    fleet.controller.wait_report(revision=3, problem=None)
    expect_host("192.168.7.12")
    told = {topic for topic in fleet.controller.state if "reported" in topic}
    assert told == {f"kavel/{BOX}/reported/7"}


@pytest.mark.parametrize("properties", [[(b"revision", b"\xff\xc3")], [(b"\x80", b"1")], [("revision", "1\x00")],
                                        [("revision", "1"), ("revision", "2")], [("a", "b")] * 200])
def test_properties_of_any_kind_do_not_stop_the_link(fleet, link, properties):
    """Whether the broker passes them on is its own matter; it may close the sender's connection."""
    vandal = fleet.new_controller()
    given = Properties(PacketTypes.PUBLISH)
    given.UserProperty = properties
    vandal.client.publish(f"{DESIRED}/7", b"x", qos=1, retain=True, properties=given)
    wait_until(lambda: vandal.acknowledged or vandal.disconnections, "the broker answers")
    vandal.close()
    fleet.controller.publish(serving("192.168.7.11"), 10)
    fleet.controller.wait_report(revision=10, result="applied", problem=None)
    expect_host("192.168.7.11")
    assert link.log().count("the broker is connected") == 1


def test_a_flood_of_garbage_does_not_fill_the_log(fleet, link):
    for number in range(500):
        fleet.controller.send(f"{DESIRED}/7", b"x", f"bad {number}")
    fleet.controller.publish(serving("192.168.7.11"), 1)
    fleet.controller.wait_report(revision=1, problem=None)
    assert link.log().count("a message is dropped") == 20


# ---- restarts ----


def test_messages_wait_for_an_agent_that_is_away(fleet, link, box):
    assert box.stop() == 0
    fleet.controller.wait_online(agent=False)
    for revision in (1, 2, 3):
        fleet.controller.publish(serving(f"192.168.7.{revision}"), revision)
    box.start()
    fleet.controller.wait_online()
    fleet.controller.wait_report(revision=3, inForce=3)
    assert applied_revisions(box) == ["3"]
    expect_host("192.168.7.3")


def test_an_agent_that_was_killed_gets_what_was_published_meanwhile(fleet, link, box):
    fleet.controller.publish(serving("192.168.7.1"), 1)
    fleet.controller.wait_report(revision=1)
    box.agent.kill()
    box.agent.wait()
    fleet.controller.wait_online(agent=False)
    box.start()
    fleet.controller.wait_online()
    fleet.controller.publish(serving("192.168.7.2"), 2)
    fleet.controller.wait_report(revision=2, inForce=2)
    assert applied_revisions(box) == ["2", "1"]


def test_an_agent_that_lost_its_store_gets_the_message_again(fleet, link, box):
    fleet.controller.publish(serving("192.168.7.11"), 5)
    fleet.controller.wait_report(revision=5)
    box.cut_power()
    shutil.rmtree(STORE.parent)
    box.start()
    fleet.controller.wait_report(revision=5, inForce=5, running=True)
    expect_host("192.168.7.11")
    assert applied_revisions(box) == ["5"]
    assert link.is_running()


def test_a_broker_that_restarts_is_connected_again(fleet, link):
    fleet.controller.publish(serving("192.168.7.11"), 1)
    fleet.controller.wait_report(revision=1)
    fleet.broker.stop()
    link.wait_log("WARNING the broker: ")
    fleet.controller.state.clear()
    fleet.broker.start()
    fleet.controller.wait_online()
    fleet.controller.wait_report(revision=1)
    fleet.controller.publish(serving("192.168.7.12"), 2)
    fleet.controller.wait_report(revision=2, inForce=2)
    expect_host("192.168.7.12")


def test_a_broker_that_lost_everything_gets_the_reports_again(fleet, link, box):
    fleet.controller.publish(serving("192.168.7.11"), 1)
    report = fleet.controller.wait_report(revision=1)
    pid = instance_pid()

    def lose_all():
        fleet.broker.kill()
        SAVED.unlink()
        fleet.controller.state.clear()

    lose_all()
    fleet.broker.start()
    assert fleet.controller.wait_report(revision=1) == report
    link.stop()
    lose_all()
    fleet.broker.start()
    link.start()  # it has nothing but the agent's history to report from
    again = fleet.controller.wait_report(revision=1)
    assert {**again, "time": 0} == {**report, "time": 0}
    assert instance_pid() == pid
    assert applied_revisions(box) == ["1"]


# ---- certificates, users, configuration ----


def kept(certificate, name):
    """A copy of a certificate: the next one of the same name takes the place of the original."""
    for ending in ("pem", "key"):
        shutil.copy(f"{certificate}.{ending}", DIRECTORY / f"{name}.{ending}")
    return DIRECTORY / name


def refused_certificates(fleet):
    stranger = Authority(DIRECTORY / "stranger")
    return [("of a stranger", stranger.make("box", BOX)), ("of a user", fleet.user),
            ("expired", kept(fleet.authority.make("box", BOX, days=0), "expired"))]


def test_a_certificate_that_is_not_accepted_is_told_once(fleet, box):
    box.start()
    link = fleet.link()
    good = kept(link.directory / "box", "good")
    fleet.controller.publish(serving("192.168.7.11"), 1)
    for name, certificate in refused_certificates(fleet):
        link.log_path.write_text("")
        link.install(certificate)
        link.start()
        link.wait_log("TLS: ")
        lines = len(fleet.broker.log.read_text().splitlines())
        wait_until(lambda: len(fleet.broker.log.read_text().splitlines()) >= lines + 2, f"{name}: more attempts", 60)
        warnings = [line for line in link.log().splitlines() if line.startswith(("WARNING", "ERROR"))]
        assert len(warnings) == 1, (name, warnings)
        assert link.stop() == 0
        assert fleet.controller.report() == {} and fleet.controller.presence().get("online", False) is False
    link.install(good)
    link.start()
    fleet.controller.wait_report(revision=1, result="applied")


def test_the_certificate_of_another_box_is_of_no_use(fleet, box):
    """The broker goes by the certificate: this box reads nothing, and says nothing in its own name or another's."""
    box.start()
    link = fleet.link()
    good = kept(link.directory / "box", "good")
    link.install(fleet.authority.make("box", "branch-2"))
    fleet.controller.publish(serving("192.168.7.11"), 1)
    fleet.controller.publish(serving("192.168.7.12"), 1, box="branch-2")
    link.start()
    link.wait_log(f"kavel/{BOX}/online: the broker refuses it: Not authorized")
    link.wait_log("the agent answers")
    assert [line for line in link.log().splitlines() if "vpn 7" in line] == []
    assert [text for topic, text in fleet.controller.state.items() if BOX in topic] == []
    link.install(good)
    run("kill", "-HUP", link.process.pid)
    fleet.controller.wait_report(revision=1, result="applied")
    expect_host("192.168.7.11")


def test_a_new_certificate_is_used_at_the_next_attempt(fleet, box):
    box.start()
    link = fleet.link()
    good = kept(link.directory / "box", "good")
    link.install(fleet.authority.make("box", BOX, days=0))
    link.start()
    link.wait_log("TLS: ")
    link.install(good)
    fleet.controller.wait_online()
    assert link.is_running()


def test_a_broker_of_a_stranger_gets_nothing(fleet, box):
    stranger = Authority(DIRECTORY / "stranger")
    box.start()
    link = fleet.link()
    trusted = link.directory / "stranger.pem"
    shutil.copy(stranger.trusted, trusted)
    link.configure(broker={"ca": str(trusted)})
    link.start()
    link.wait_log("the certificate of the broker is not accepted")
    assert fleet.controller.presence() == {}


def test_a_user_that_the_agent_does_not_admit_is_told(fleet, box):
    configure(box, users=[])
    box.start()
    link = fleet.link().start()
    fleet.controller.publish(serving("192.168.7.11"), 1)
    fleet.controller.wait_online(agent=False)
    link.wait_log("WARNING the agent: ")
    assert fleet.controller.report() == {}
    box.stop()
    configure(box)
    box.start()
    fleet.controller.wait_online(seconds=100)
    fleet.controller.wait_report(revision=1, result="applied")


def test_the_configuration_is_read_again(fleet, link):
    fleet.controller.publish(serving("192.168.7.11"), 1)
    fleet.controller.wait_report(revision=1)
    link.config.write_text('{"box": "branch-1", "borker": {}}')
    run("kill", "-HUP", link.process.pid)
    link.wait_log("borker: unknown key")
    assert link.log().splitlines()[-1].endswith("the configuration stays as it was")
    link.configure(log="notice")
    run("kill", "-HUP", link.process.pid)
    link.wait_log("the broker is connected", 2)
    fleet.controller.publish(serving("192.168.7.12"), 2)
    fleet.controller.wait_report(revision=2)
    expect_host("192.168.7.12")


@pytest.mark.parametrize("words, status, said", [
    (["--version"], 0, "vqlink "),
    (["--help"], 0, "usage: vqlink"),
    (["--verbose"], 2, "vqlink: --verbose: unknown option\n"),
    (["now"], 2, "vqlink: now: unexpected argument\n"),
    (["--config"], 2, "vqlink: --config: a value is missing\n"),
    (["--config", "/nowhere.json"], 2, "vqlink: /nowhere.json: cannot be read: No such file or directory\n")])
def test_options(words, status, said):
    done = run(BUILD / "vqlink", *words, check=False)
    assert done.returncode == status
    assert said in done.stdout + done.stderr


def test_a_key_that_cannot_be_read_is_named(fleet):
    link = fleet.link()
    (link.directory / "box.key").unlink()
    link.spawn()
    assert link.process.wait(30) == 1
    assert link.log() == f"vqlink: key {link.directory}/box.key: No such file or directory\n"

"""A POP: one instance for the box. Customer boxes behind CPE-to-POP connections send queries to it."""

import json

import pytest

from box import BUILD, ROOT, alive, end, instance_pid, instances, run, wait_until

LOCAL_IP = "10.88.0.1"
UP_IP = "10.9.0.1"
NOWHERE = "192.0.2.53"


def ask_from_branch(name, server=NOWHERE, options=(), namespace="branch"):
    answer = run("ip", "netns", "exec", namespace, "dig", "+short", "+time=1", "+tries=1", *options, f"@{server}", name,
                 check=False)
    return [line for line in answer.stdout.splitlines() if not line.startswith(";")]


def tables():
    listed = json.loads(run("nft", "-j", "list", "tables").stdout)
    return sorted(entry["table"]["name"] for entry in listed["nftables"] if "table" in entry)


def pop_message(**changes):
    return {"enable": True, "dns": ["10.9.0.53"], "localip": LOCAL_IP, **changes}


@pytest.fixture(scope="session", autouse=True)
def pop_lab(lab):
    run(ROOT / "scripts/lab", "pop")


@pytest.fixture
def pop(box):
    run("rm", "-rf", "/run/kavel-store")
    box.configure(platform="pop", persistence=True, store="/run/kavel-store/agent.db", c2p=["c2p*"])
    yield box.start()
    run("nft", "flush", "ruleset")


@pytest.fixture
def unattended_pop(pop):
    """Its agent repairs nothing by itself."""
    pop.stop()
    pop.configure(platform="pop", persistence=True, store="/run/kavel-store/agent.db", c2p=["c2p*"],
                  watch={"repair": False})
    return pop.start()


def test_branch_is_answered_through_the_dnat(pop):
    assert ask_from_branch("www.example.net") == []

    pop.apply(pop_message())

    wait_until(lambda: ask_from_branch("www.example.net") == ["198.51.100.10"], "an answer through the DNAT")
    assert len(tables()) == 2, "the DNS-table rule and the DNAT rule"
    assert open("/etc/kavel/dnsmasq/resolv.conf").read() == "nameserver 10.9.0.53\n"


def ask_from_upstream(options=()):
    return ask_from_branch("www.example.net", server=UP_IP, options=options, namespace="upstream_pop")


def test_client_behind_wan_cannot_use_the_pop_as_an_open_resolver(unattended_pop):
    """The pattern c2p* is in both lists: its interfaces stay served."""
    unattended_pop.stop()
    unattended_pop.configure(platform="pop", c2p=["c2p*"], wan=["up*", "c2p*"],
                             watch={"repair": False})
    unattended_pop.start().apply(pop_message())
    wait_until(lambda: ask_from_branch("www.example.net") == ["198.51.100.10"], "an answer through the DNAT")

    assert ask_from_upstream() == []
    assert ask_from_upstream(["+tcp"]) == []
    assert unattended_pop.status(0)["problems"] == []

    run("nft", "flush", "chain", "inet", "kavel_dns_0_2", "input")
    assert ask_from_upstream() == ["198.51.100.10"], "nothing but the rule prevented the answer"
    assert ask_from_upstream(["+tcp"]) == ["198.51.100.10"]
    assert "the steering rule is missing" in unattended_pop.status(0)["problems"]


def test_status_reports_a_dnat_rule_that_was_emptied(unattended_pop):
    unattended_pop.apply(pop_message())
    assert unattended_pop.status(0)["dnat"]

    run("nft", "flush", "chain", "ip", "kavel_dnat_0_3", "prerouting")

    assert not unattended_pop.status(0)["dnat"]
    assert "the DNAT rule is missing" in unattended_pop.status(0)["problems"]


def test_apply_writes_only_the_resolver_file(pop):
    before = {name: open(f"/etc/kavel/dnsmasq/{name}").read() for name in ("hosts", "dnsmasq.conf")}
    pop.apply(pop_message())
    assert {name: open(f"/etc/kavel/dnsmasq/{name}").read() for name in before} == before


def test_every_message_restarts_the_instance(pop):
    pop.apply(pop_message())
    before = instance_pid(0)
    pop.apply(pop_message(dns=["10.9.0.53", "10.9.0.54"]))
    assert not alive(before)
    assert instances() == [instance_pid(0)]
    assert len(tables()) == 2


def test_only_the_first_eight_servers_are_kept(pop):
    pop.apply(pop_message(dns=[f"10.9.0.{number}" for number in range(50, 70)]))
    assert len(open("/etc/kavel/dnsmasq/resolv.conf").readlines()) == 8
    assert "is more than 8" in pop.log()
    said = pop.refused(pop_message(dns=["10.9.0.53"] * 256))
    assert said.endswith("pop dnsmasq dns is overflow")


def test_disable_removes_process_and_rules(pop):
    pop.apply(pop_message())
    pid = instance_pid(0)

    pop.apply(pop_message(enable=False))

    assert not alive(pid)
    assert tables() == []
    assert ask_from_branch("www.example.net") == []


def test_instance_recovers_after_a_kill(pop):
    pop.apply(pop_message(persistentflag=True))
    pop.agent.kill()
    pop.agent.wait()
    for pid in instances():
        end(pid)

    pop.start()

    wait_until(lambda: ask_from_branch("www.example.net") == ["198.51.100.10"], "an answer after the recovery")
    assert len(tables()) == 2


def test_cpe_message_is_refused_on_a_pop(pop):
    done = pop.vqctl("check", "-", input=json.dumps({"enable": True, "operation": "reload", "vpnid": 7,
                                                     "dnshosts": [{"domain": "a.example", "ip": "10.0.0.1"}]}))
    assert done.returncode == 1


@pytest.mark.parametrize("with_agent", [True, False])
def test_stopping_removes_both_rules(pop, with_agent):
    pop.apply(pop_message())
    assert len(tables()) == 2

    if with_agent:
        assert pop.vqctl("stop", "--all").stdout == "vpn 0: stopped\n"
    else:
        assert pop.stop() == 0
        run(BUILD / "vqagent", "--stop-all")

    assert tables() == [] and instances() == []

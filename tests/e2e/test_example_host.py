"""The example host with the real module and a real dnsmasq, as a CPE and as a POP."""

import pathlib

import pytest

import example_host
from box import ROOT, ask, end, expect, instances, message, pid_file, routes, run, tables
from example_host import POP_VPNS, STORE, ExampleBox, the_only_instance
from waiting import wait_until

NOWHERE = "192.0.2.53"


@pytest.fixture
def host():
    machine = ExampleBox()
    yield machine
    machine.clean_up()


@pytest.fixture(scope="session")
def pop_lab(lab):
    run(ROOT / "scripts/lab", "pop")


def ask_from_branch(name):
    answer = run("ip", "netns", "exec", "branch", "dig", "+short", "+time=1", "+tries=1", f"@{NOWHERE}", name, check=False)
    return [line for line in answer.stdout.splitlines() if not line.startswith(";")]


def test_host_has_less_than_700_lines():
    assert 500 < example_host.count_lines() < 700


def test_cpe_serves_its_vpns(host):
    host.start()

    host.apply(message(7, persistentflag=True))
    host.apply(message(8))

    expect("192.168.7.10", "nas.vpn7.example")
    expect("192.168.8.10", "nas.vpn8.example", vpn=8)
    assert ask("nas.vpn8.example") == [], "each VPN has names of its own"
    expect("198.51.100.10", "www.example.net", server=NOWHERE)
    assert routes() == ["10.7.0.53"]
    assert tables() == ["kavel_3_0_9"]


def test_reload_reaches_the_instance_that_runs(host):
    host.start().apply(message())
    before = the_only_instance()

    host.apply(message(operation="reload", dnshosts=[{"domain": "new.vpn7.example", "ip": "192.168.7.77"}]))

    expect("192.168.7.77", "new.vpn7.example")
    assert the_only_instance() == before


def test_service_that_is_disabled_leaves_nothing(host):
    host.start().apply(message(persistentflag=True))

    host.apply({"enable": False, "operation": "reload", "vpnid": 7})

    assert instances(7) == []
    assert not pid_file().exists()
    assert routes() == []
    assert tables() == []
    assert list(STORE.iterdir()) == []


def test_service_whose_rule_was_lost_is_disabled_all_the_same(host):
    host.start().apply(message())
    run("ip", "netns", "exec", "vpn_7", "nft", "flush", "ruleset")

    host.apply({"enable": False, "operation": "reload", "vpnid": 7})

    assert instances(7) == []


def test_enable_and_disable_at_once_leave_no_instance(host):
    host.start()
    for _ in range(3):
        host.apply(message())
        host.apply({"enable": False, "operation": "reload", "vpnid": 7})
        assert instances(7) == []


def test_restarts_one_after_the_other_leave_one_instance(host):
    host.start()
    for _ in range(3):
        host.apply(message())
    the_only_instance()


def test_instance_is_found_after_its_pid_file_was_lost(host):
    host.start().apply(message())
    before = the_only_instance()
    pid_file().unlink()

    host.apply(message(operation="reload", dnshosts=[{"domain": "new.vpn7.example", "ip": "192.168.7.77"}]))
    expect("192.168.7.77", "new.vpn7.example")
    assert the_only_instance() == before

    pid_file().unlink()
    host.apply(message())
    assert the_only_instance() != before


def test_process_that_a_bad_pid_file_names_is_left_alone(host):
    host.start().apply(message())
    pid = the_only_instance()
    end(pid)
    for content in (f"{host.host.pid}\n", "0\n", "-1\n", "", "no number\n"):
        pid_file().write_text(content)
        host.apply(message())
        assert host.host.poll() is None
        end(the_only_instance())


def test_reload_without_an_instance_is_a_failure(host):
    status, answer = host.start().send(message(operation="reload"))

    assert status == 1
    assert answer.startswith("-3 ")


def test_refusal_names_its_cause(host):
    host.start()

    assert host.send(message(dnshosts=[{"domain": "a_b", "ip": "192.168.7.10"}])) == \
        (1, "-22 dnsmasq dns host[0].domain is invalid")
    assert host.send(message(99)) == (1, "-2 No such file or directory")


def test_launch_that_fails_is_a_failure(host):
    host.start()
    own = pathlib.Path("/etc/kavel/dnsmasq/vpn_7/dnsmasq.d/own.conf")
    own.write_text("no-such-option\n")

    status, answer = host.send(message())

    assert status == 1
    assert answer.startswith("-3 ")


def test_stored_records_are_in_force_after_a_restart(host):
    host.start().apply(message(7, persistentflag=True))
    host.apply(message(8))
    host.stop()
    expect("192.168.7.10", "nas.vpn7.example")
    before = the_only_instance(7)
    for pid in instances(8):
        end(pid)

    host.start()

    assert the_only_instance(7) != before
    assert instances(8) == [], "it was not stored"
    expect("192.168.7.10", "nas.vpn7.example")
    assert routes() == ["10.7.0.53"]


def test_stored_records_are_in_force_after_a_restart_of_the_box(host):
    host.start().apply(message(7, persistentflag=True))
    host.host.kill()
    host.host.wait()
    end(the_only_instance(7))
    pid_file().unlink()
    run("ip", "-n", "vpn_7", "route", "flush", "table", "199")
    run("ip", "netns", "exec", "vpn_7", "nft", "flush", "ruleset")

    host.start()

    expect("192.168.7.10", "nas.vpn7.example")
    expect("198.51.100.10", "www.example.net", server=NOWHERE)


def test_hundreds_of_forwards_are_routed_and_removed(host):
    host.start()
    proxies = [{"domains": [f"d{item}.example"], "serverips": [f"10.7.{item // 250 + 1}.{item % 250 + 1}"]}
               for item in range(600)]

    host.apply(message(dnsproxies=proxies))
    assert len(routes()) == 601

    host.apply(message())
    assert routes() == ["10.7.0.53"]


def test_pop_serves_its_branches(host, pop_lab):
    host.start("pop", POP_VPNS)
    assert ask_from_branch("www.example.net") == []

    host.apply({"enable": True, "dns": ["10.9.0.53"], "localip": "10.88.0.1", "persistentflag": True})
    wait_until(lambda: ask_from_branch("www.example.net") == ["198.51.100.10"], "an answer through the DNAT")

    host.stop()
    host.start("pop", POP_VPNS)
    wait_until(lambda: ask_from_branch("www.example.net") == ["198.51.100.10"], "an answer after the restart")

    host.apply({"enable": False, "dns": [], "localip": "10.88.0.1"})
    assert ask_from_branch("www.example.net") == []
    assert instances(0) == []

"""The steering rule: the VPN's instance answers, whatever resolver a client has configured."""

import json

from box import alive, ask, expect, instance_pid, instances, message, run, tables

NOWHERE = "192.0.2.53"


def dns_rules(vpn=7):
    """The redirects of a VPN's namespace, one text each."""
    listed = json.loads(run("ip", "netns", "exec", f"vpn_{vpn}", "nft", "-j", "list", "ruleset").stdout)
    return [json.dumps(entry["rule"]["expr"]) for entry in listed["nftables"] if "rule" in entry]


def test_query_to_a_resolver_that_does_not_exist_is_answered(running):
    assert ask("nas.vpn7.example", server=NOWHERE) == []

    running.apply(message())

    expect("192.168.7.10", "nas.vpn7.example", server=NOWHERE)
    expect("192.168.7.10", "nas.vpn7.example", server=NOWHERE, options=["+tcp"])
    assert running.status()["rule"]
    assert tables(8) == [], "the other VPN has no rule"


def test_queries_of_the_instance_are_not_redirected(running):
    """The instance's own queries leave by lan0 and wan0 unchanged."""
    running.apply(message(dnsservers=[{"dnsserver": "203.0.113.53", "ifname": "wan0"}]))
    expect("198.51.100.10", "www.example.net")


def test_restart_replaces_the_rule(running):
    running.apply(message())
    before = dns_rules()
    assert before

    running.apply(message())
    running.apply(message())

    assert dns_rules() == before
    assert len(tables()) == 1


def test_restarts_by_several_agents_leave_one_rule(running):
    for _ in range(2):
        running.apply(message())
        running.agent.kill()
        running.agent.wait()
        running.start()
    running.apply(message())

    assert len(tables()) == 1


def test_disable_removes_the_rule(running):
    running.apply(message())
    assert tables()

    running.apply(message(enable=False))

    assert tables() == []
    assert ask("nas.vpn7.example", server=NOWHERE) == []
    assert not running.status()["rule"]


def test_rule_that_cannot_be_removed_stops_the_teardown(running):
    """The result is success and the instance keeps running, since queries may still be steered to it."""
    running.apply(message())
    expect("192.168.7.10", "nas.vpn7.example")
    pid = instance_pid()
    (table,) = tables()
    run("ip", "netns", "exec", "vpn_7", "nft", "delete", "table", "ip", table)

    running.apply(message(enable=False))

    assert alive(pid)
    assert instances(7) == [pid]
    assert "Delete Dnsmasq default policy failed" in running.log()
    assert "runs although it is switched off" in running.status()["problems"]


def test_rule_of_another_customer_is_not_removed(box):
    box.configure({"id": 7, "customer": 1, "lan": ["lan0", "lan1"]})
    box.start().apply(message())
    box.stop()
    box.configure({"id": 7, "customer": 2, "lan": ["lan0", "lan1"]})
    box.start()

    box.apply(message(enable=False))

    assert tables(), "the rule belongs to the first customer"
    assert instances(7)


def test_status_reports_a_missing_rule(running):
    running.apply(message())
    (table,) = tables()
    run("ip", "netns", "exec", "vpn_7", "nft", "delete", "table", "ip", table)

    row = running.status()
    assert not row["rule"]
    assert "the steering rule is missing" in row["problems"]

"""The steering rule: the VPN's instance answers, whatever resolver a client has configured."""

import json

import pytest

from box import alive, ask, expect, instance_pid, instances, message, pid_file, run, tables

NOWHERE = "192.0.2.53"
NOWHERE6 = "2001:db8:53::53"
LAN6 = "fd00:7::1"
WAN = "203.0.113.1"
WAN6 = "fd00:203::1"
TABLE = "kavel_dns_0_9"


@pytest.fixture(scope="module", autouse=True)
def ipv6_addresses(lab):
    """IPv6 between the client and the box, and between the box and the hosts behind wan0."""
    for namespace, interface, address in (("vpn_7", "lan1", LAN6), ("client_7", "eth0", "fd00:7::100"),
                                          ("vpn_7", "wan0", WAN6), ("upstream_7", "eth1", "fd00:203::53")):
        run("ip", "-n", namespace, "address", "add", f"{address}/64", "dev", interface, "nodad")
    run("ip", "-n", "client_7", "route", "add", "default", "via", LAN6)


def nft(*words):
    """Runs a command of nft in the VPN's namespace. Returns its output."""
    return run("ip", "netns", "exec", "vpn_7", "nft", *words).stdout


def ask_from_wan(name, server, options=()):
    """Sends a query from a host behind the VPN's wan0. Returns the answers, one per line."""
    answer = run("ip", "netns", "exec", "upstream_7", "dig", "+short", "+time=1", "+tries=1", *options, f"@{server}",
                 name, check=False)
    return [line for line in answer.stdout.splitlines() if not line.startswith(";")]


def install_older_rule(customer=0):
    """Installs the rule of an agent that knew IPv4 only."""
    nft(f"table ip {TABLE} {{ chain customer_{customer} {{ }}; chain prerouting {{ "
        "type nat hook prerouting priority dstnat; policy accept; "
        'iifname "lan1" udp dport 53 redirect to :53; }; }')


def families():
    """The families of the tables in the VPN's namespace."""
    return [line.split()[1] for line in nft("list", "tables").splitlines()]


def dns_rules(vpn=7):
    """The rules of a VPN's namespace, one text each."""
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


def test_answers_of_an_upstream_server_behind_wan_arrive(running):
    running.apply(message(dnsservers=[{"dnsserver": "203.0.113.53", "ifname": "wan0"}]))
    expect("198.51.100.10", "www.example.net")
    expect("198.51.100.7", "vpn7.example.net", options=["+tcp"])


@pytest.mark.parametrize("server", [WAN, WAN6])
@pytest.mark.parametrize("options", [[], ["+tcp"]], ids=["udp", "tcp"])
def test_client_behind_wan_cannot_use_the_instance_as_an_open_resolver(unattended, server, options):
    unattended.apply(message())
    expect("192.168.7.10", "nas.vpn7.example")

    assert ask_from_wan("nas.vpn7.example", server, options) == []

    nft("flush", "chain", "inet", TABLE, "input")
    assert ask_from_wan("nas.vpn7.example", server, options) == ["192.168.7.10"], "only the rule prevents the answer"


def test_ipv6_query_does_not_bypass_the_instance(running):
    assert ask("nas.vpn7.example", server=NOWHERE6) == []

    running.apply(message())

    for server in (NOWHERE6, LAN6):
        expect("192.168.7.10", "nas.vpn7.example", server=server)
        expect("192.168.7.10", "nas.vpn7.example", server=server, options=["+tcp"])


def test_lan_interface_that_is_also_wan_is_not_blocked(box):
    box.configure({"id": 7, "lan": ["lan1"], "wan": [{"name": "wan0"}, {"name": "lan1"}]})
    box.start().apply(message())

    for server in (NOWHERE, "192.168.7.1", NOWHERE6, LAN6):
        expect("192.168.7.10", "nas.vpn7.example", server=server)
        expect("192.168.7.10", "nas.vpn7.example", server=server, options=["+tcp"])
    assert box.status()["rule"]


def test_rule_of_an_older_agent_does_not_outlive_a_restart(running):
    install_older_rule()
    assert not running.status()["rule"]

    running.apply(message())

    assert families() == ["inet"]
    assert running.status()["rule"]


def test_rule_of_an_older_agent_does_not_outlive_the_service(unattended):
    unattended.apply(message())
    nft("delete", "table", "inet", TABLE)
    install_older_rule()
    assert "the steering rule is missing" in unattended.status()["problems"], "it neither drops nor steers IPv6"

    unattended.apply(message(enable=False))

    assert families() == []
    assert unattended.status()["problems"] == []


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


def switch_off_and_fail(box):
    """Switches the service of VPN 7 off; its instance must still run, and vqctl must say so."""
    done = box.vqctl("apply", "-", input=json.dumps(message(enable=False)))
    assert done.returncode == 4
    assert done.stdout == "standard input: vpn 7: applied, STILL RUNNING: the instance still runs\n"


def test_switching_off_ends_an_instance_whose_rule_is_gone(unattended):
    """The module keeps it, since queries may still be steered to it. The agent sees that they are not."""
    unattended.apply(message())
    expect("192.168.7.10", "nas.vpn7.example")
    pid = instance_pid()
    (table,) = tables()
    run("ip", "netns", "exec", "vpn_7", "nft", "delete", "table", "inet", table)

    unattended.apply(message(enable=False))

    assert not alive(pid)
    assert instances(7) == []
    assert not pid_file().exists()
    assert "Delete Dnsmasq default policy failed" in unattended.log()
    assert unattended.status()["problems"] == []


def test_rule_of_another_customer_is_not_removed(box):
    box.configure({"id": 7, "customer": 1, "lan": ["lan0", "lan1"]})
    box.start().apply(message())
    box.stop()
    box.configure({"id": 7, "customer": 2, "lan": ["lan0", "lan1"]})
    box.start()

    switch_off_and_fail(box)

    assert tables(), "the rule belongs to the first customer"
    assert instances(7)


def test_status_reports_a_missing_rule(unattended):
    unattended.apply(message())
    (table,) = tables()
    run("ip", "netns", "exec", "vpn_7", "nft", "delete", "table", "inet", table)

    row = unattended.status()
    assert not row["rule"]
    assert "the steering rule is missing" in row["problems"]


@pytest.mark.parametrize("chain", ["prerouting", "input"])
def test_status_reports_a_rule_that_was_emptied(unattended, chain):
    unattended.apply(message())
    assert unattended.status()["rule"]

    nft("flush", "chain", "inet", TABLE, chain)

    row = unattended.status()
    assert not row["rule"]
    assert "the steering rule is missing" in row["problems"]
    unattended.apply(message())
    assert unattended.status()["problems"] == []

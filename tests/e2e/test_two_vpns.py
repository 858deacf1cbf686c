"""Two VPNs on one box: each one sees only its own names."""

from box import ask, expect, instance_pid, instances, message, routes, vpn_config


def test_names_are_visible_only_in_their_vpn(running):
    running.apply(message(7), message(8))

    expect("192.168.7.10", "nas.vpn7.example", vpn=7)
    expect("192.168.8.10", "nas.vpn8.example", vpn=8)
    assert ask("nas.vpn8.example", vpn=7) == []
    assert ask("nas.vpn7.example", vpn=8) == []


def test_each_vpn_queries_its_own_upstream(running):
    running.apply(message(7), message(8))

    expect("198.51.100.7", "vpn7.example.net", vpn=7)
    expect("198.51.100.8", "vpn8.example.net", vpn=8)
    assert ask("vpn8.example.net", vpn=7) == []


def test_disabling_one_vpn_does_not_affect_the_other(running):
    running.apply(message(7), message(8))
    expect("192.168.8.10", "nas.vpn8.example", vpn=8)
    other = instance_pid(8)

    running.apply(message(7, enable=False, dnshosts=None, dnsservers=None))

    assert instances(7) == []
    assert routes(7) == []
    assert instance_pid(8) == other
    assert routes(8) == ["10.8.0.53"]
    assert ask("nas.vpn8.example", vpn=8) == ["192.168.8.10"]


def test_vpn_without_lan_interfaces_uses_its_ordinary_routes(box):
    box.configure(vpn_config(7, lan=[]))
    box.start()

    box.apply(message(dnsservers=[{"dnsserver": "203.0.113.53"}]))

    expect("198.51.100.10", "www.example.net")
    assert routes() == ["203.0.113.53"]
    assert box.status()["problems"] == []

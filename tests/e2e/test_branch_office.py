"""The service of one VPN in a branch office: enable, query, change, disable."""

import json
import subprocess

from box import DNSMASQ, ROOT, alive, ask, expect, instance_pid, instances, message, pid_file, routes, wait_until


def example(name):
    return json.loads((ROOT / "examples" / name).read_text())


def test_apply_answers_queries(running):
    running.apply(example("branch-office.json"))

    expect("192.168.7.10", "nas.branch.example")
    expect("10 mail.branch.example.", "branch.example", "MX")
    expect("198.51.100.77", "crm.corp.example")
    expect("198.51.100.10", "www.example.net")
    assert ask("www.example.net", options=["+tcp"]) == ["198.51.100.10"]


def test_apply_writes_files_and_routes(running):
    running.apply(example("branch-office.json"))

    files = DNSMASQ / "vpn_7"
    assert (files / "hosts").read_text().splitlines()[0] == "192.168.7.10 nas.branch.example"
    assert (files / "dnsmasq.d/Mxhost.conf").read_text() == "mx-host=branch.example,mail.branch.example,10\n"
    assert (files / "dnsmasq.d/ServerMap.conf").read_text() == "server=203.0.113.53@wan0\n"
    assert (files / "resolv.conf").read_text() == "nameserver 10.7.0.53\nnameserver 203.0.113.53\n"
    assert (files / "dnsmasq.d/DnsProxy.conf").read_text() == "server=/corp.example/10.7.0.54\n"
    assert routes() == ["10.7.0.53", "10.7.0.54", "203.0.113.53"]
    for path in files.rglob("*"):
        assert path.stat().st_mode & 0o777 == (0o755 if path.is_dir() else 0o644), path
    assert sorted(path.name for path in files.rglob(".*")) == [], "temporary files"


def test_reload_keeps_the_process(running):
    running.apply(example("branch-office.json"))
    expect("192.168.7.10", "nas.branch.example")
    before = instance_pid()

    running.apply(example("branch-office-change.json"))

    expect("192.168.7.11", "nas.branch.example")
    assert instance_pid() == before


def test_restart_replaces_the_process(running):
    running.apply(example("branch-office.json"))
    expect("192.168.7.10", "nas.branch.example")
    before = instance_pid()

    running.apply(message(dnsmxhost=[{"targetdomain": "mx.new.example", "sourcedomain": "new.example",
                                      "preference": 5}]))

    expect("5 mx.new.example.", "new.example", "MX")
    assert instance_pid() != before
    assert not alive(before)
    assert instances(7) == [instance_pid()]


def test_instance_has_the_expected_arguments_namespace_and_descriptors(running):
    running.apply(example("branch-office.json"))
    pid = wait_until(lambda: pid_file().exists() and instance_pid(), "pid file")

    words = open(f"/proc/{pid}/cmdline").read().split("\0")[:-1]
    assert words == ["/usr/sbin/dnsmasq", "-C", "/etc/kavel/dnsmasq/vpn_7/dnsmasq.conf", "--dns-forward-max=1000",
                     "--no-hosts", "--pid-file=/var/run/kvl_dns_vpn_7.pid", "-k"]
    in_vpn = subprocess.run(["ip", "netns", "identify", str(pid)], text=True, capture_output=True, check=True)
    assert in_vpn.stdout.strip() == "vpn_7"
    descriptors = subprocess.run(["ls", "-l", f"/proc/{pid}/fd"], text=True, capture_output=True, check=True).stdout
    assert "agent" not in descriptors, "the instance inherits none of the agent's files and sockets"


def test_disable_removes_process_routes_and_content(running):
    running.apply(example("branch-office.json"))
    pid = wait_until(lambda: pid_file().exists() and instance_pid(), "pid file")

    running.apply(example("branch-office-off.json"))

    assert not alive(pid)
    assert not pid_file().exists()
    assert routes() == []
    assert ask("nas.branch.example") == []
    for name in ("hosts", "resolv.conf", "dnsmasq.d/Mxhost.conf", "dnsmasq.d/ServerMap.conf",
                 "dnsmasq.d/DnsProxy.conf"):
        assert (DNSMASQ / "vpn_7" / name).read_text() == ""


def test_system_route_wan_adds_no_routes(box):
    box.configure({"id": 7, "lan": ["lan0"], "wan": [{"name": "wan0", "sysRoute": True}]})
    box.start()

    box.apply(message())

    assert routes() == []


def test_vpn_0_serves_the_box_itself(running):
    """The instance of VPN 0 runs in the box's own namespace and reads the box-wide files."""
    running.apply(message(0, dnshosts=[{"domain": "box.example", "ip": "192.0.2.1"}], dnsservers=None))

    pid = wait_until(lambda: pid_file(0).exists() and instance_pid(0), "pid file")
    answer = wait_until(lambda: subprocess.run(["dig", "+short", "+time=1", "+tries=1", "@127.0.0.1", "box.example"],
                                               text=True, capture_output=True).stdout.strip(), "an answer")
    assert answer == "192.0.2.1"
    assert (DNSMASQ / "hosts").read_text() == "192.0.2.1 box.example\n"
    assert b"/etc/kavel/dnsmasq/dnsmasq.conf" in open(f"/proc/{pid}/cmdline", "rb").read()

"""vqctl why names the cause of each fault, by its code and in words, and says what mends it."""

import contextlib
import json
import os
import pathlib
import signal
import sqlite3
import subprocess
import sys

import pytest

from box import BUILD, DNSMASQ, STORE, end, expect, instance_pid, message, run, vpn_config, wait_until

DIRECTORY = DNSMASQ / "vpn_7"
DEAD = "10.7.0.99"  # nobody has this address

# A name server that says so little that nobody would use it: it waits and returns the question as an answer.
SLOW_SERVER = """
import socket, sys, time
peer = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
peer.bind((sys.argv[1], 53))
print("ready", flush=True)
while True:
    question, client = peer.recvfrom(512)
    time.sleep(1.2)
    peer.sendto(question[:2] + bytes([question[2] | 0x80]) + question[3:], client)
"""

PORT_HOLDER = """
import socket, sys, time
holder = socket.socket(socket.AF_INET, getattr(socket, sys.argv[1]))
holder.bind(("0.0.0.0", 53))
if sys.argv[1] == "SOCK_STREAM":
    holder.listen()
print("ready", flush=True)
time.sleep(600)
"""

FORWARD = {"domains": ["corp.example"], "serverips": ["10.7.0.54"]}


@contextlib.contextmanager
def background(namespace, script, *words):
    """Runs a Python script in a namespace until the context is left. Yields its pid."""
    with subprocess.Popen(["ip", "netns", "exec", namespace, sys.executable, "-c", script, *words],
                          stdout=subprocess.PIPE, text=True) as process:
        try:
            assert process.stdout.readline() == "ready\n"
            yield process.pid
        finally:
            process.kill()


@contextlib.contextmanager
def undone(*commands):
    """Runs commands when the context is left."""
    try:
        yield
    finally:
        for command in commands:
            run(*command.split())


def why(box, vpn=7):
    """What vqctl tells, by code. Its exit status and its two lines for each finding are checked, too."""
    done = box.vqctl("why", "--vpn", vpn)
    assert done.stderr == "", done.stderr
    lines = done.stdout.splitlines()
    assert done.returncode == (1 if lines else 0), done.stdout
    found = {}
    for text, remedy in zip(lines[::2], lines[1::2], strict=True):
        subject, code, words = text.split(": ", 2)
        assert subject == f"vpn {vpn}" and remedy.startswith("    do: "), done.stdout
        found.setdefault(code, []).append(words)
    return found


def expect_finding(box, code, words, others=()):
    """The finding is told, and no other but those that are named."""
    found = why(box)
    assert any(words in text for text in found.get(code, [])), (code, words, found)
    assert set(found) <= {code, *others}, found


@pytest.fixture
def served(unattended):
    unattended.apply(message(dnsservers=[{"dnsserver": "10.7.0.53"}, {"dnsserver": "203.0.113.53", "ifname": "wan0"}],
                             dnsproxies=[FORWARD], dnsmxhost=[
                                 {"sourcedomain": "vpn7.example", "targetdomain": "mail.vpn7.example", "preference": 10}]))
    wait_until(lambda: why(unattended) == {}, "the servers of the lab answer")
    return unattended


@pytest.fixture
def keeping(box):
    """An agent that stores, and repairs nothing by itself."""
    STORE.parent.mkdir(exist_ok=True)
    STORE.unlink(missing_ok=True)
    box.configure(vpn_config(7), persistence=True, store=str(STORE), watch={"repair": False})
    return box.start()


def test_nothing_is_told_about_a_vpn_that_resolves(served):
    for vpn in (["--vpn", "7"], []):
        done = served.vqctl("why", *vpn)
        assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
    assert json.loads(served.vqctl("why", "--json").stdout) == {"schema": 1, "findings": []}


def test_nothing_is_told_about_a_vpn_that_is_switched_off(served):
    served.apply(message(enable=False))
    assert why(served) == {}


def test_json_has_code_text_remedy_and_vpn(served):
    run("ip", "-n", "vpn_7", "route", "flush", "table", "199")
    (finding,) = [each for each in json.loads(served.vqctl("why", "--json").stdout)["findings"]
                  if each["code"] == "routes-missing"]
    assert finding["vpn"] == 7 and finding["text"] == "there were 0 of its 3 routes"
    assert finding["do"] == "vqctl repair --vpn 7"


def test_vpn_that_is_not_configured(served):
    done = served.vqctl("why", "--vpn", 99)
    assert done.returncode in (1, 2) and "vpn 99 is not configured" in done.stderr


def test_killed(served):
    end(instance_pid())
    wait_until(lambda: "killed by signal 9" in served.vqctl("status", "--vpn", 7).stdout, "the status tells the end")
    expect_finding(served, "instance-missing", "no instance runs: killed by signal 9")
    served.vqctl("repair", "--vpn", 7, check=True)
    assert why(served) == {}, "what the remedy says mends it"


def test_stopped_by_a_signal(served):
    pid = instance_pid()
    os.kill(pid, signal.SIGSTOP)
    try:
        expect_finding(served, "instance-suspended", f"process {pid} of the instance is stopped by a signal")
    finally:
        os.kill(pid, signal.SIGCONT)
    wait_until(lambda: why(served) == {}, "it goes on")


@pytest.mark.parametrize(("kind", "protocol"), [("SOCK_STREAM", "TCP"), ("SOCK_DGRAM", "UDP")])
def test_port_is_taken(unattended, kind, protocol):
    with background("vpn_7", PORT_HOLDER, kind) as pid:
        done = unattended.vqctl("apply", "-", input=json.dumps(message()))
        assert done.returncode == 4
        expect_finding(unattended, "port-taken", f"process {pid} (python3) has port 53 over {protocol}",
                       ["start-failed"])
        assert any("Address already in use" in text for text in why(unattended)["start-failed"])


def test_upstream_is_dead(unattended):
    unattended.apply(message(dnsservers=[{"dnsserver": DEAD}]))
    expect_finding(unattended, "upstream-silent", f"upstream {DEAD} does not answer")


def test_upstream_is_slow(unattended):
    run("ip", "-n", "upstream_7", "address", "add", "10.7.0.55/24", "dev", "eth0")
    with undone("ip -n upstream_7 address del 10.7.0.55/24 dev eth0"), background("upstream_7", SLOW_SERVER,
                                                                                  "10.7.0.55"):
        unattended.apply(message(dnsservers=[{"dnsserver": "10.7.0.55"}]))
        expect_finding(unattended, "upstream-slow", "upstream 10.7.0.55 took 1")


def test_server_of_a_forward_is_dead(unattended):
    unattended.apply(message(dnsproxies=[{"domains": ["corp.example"], "serverips": [DEAD]}]))
    expect_finding(unattended, "forward-silent", f"the server of the forward of corp.example, {DEAD}, does not answer")


def test_bound_interface_is_missing(unattended):
    unattended.apply(message(dnsservers=[{"dnsserver": "203.0.113.53", "ifname": "wan9"}]))
    expect_finding(unattended, "bound-interface-missing",
                   "server 203.0.113.53 is bound to interface wan9, which does not exist")


def test_lan_is_down(served):
    run("ip", "-n", "vpn_7", "link", "set", "lan1", "down")
    with undone("ip -n vpn_7 link set lan1 up"):
        expect_finding(served, "link-down", "LAN interface lan1 is down")


def test_upstream_link_has_no_carrier(served):
    run("ip", "-n", "upstream_7", "link", "set", "eth1", "down")
    with undone("ip -n upstream_7 link set eth1 up"):
        expect_finding(served, "link-down", "WAN interface wan0 has no carrier", ["upstream-silent"])


def test_route_table_is_flushed(served):
    run("ip", "-n", "vpn_7", "route", "flush", "table", "199")
    expect_finding(served, "routes-missing", "there were 0 of its 3 routes", ["repair-failed"])


def test_rule_of_the_route_table_is_gone(served):
    run("ip", "-n", "vpn_7", "rule", "del", "priority", "199")
    expect_finding(served, "route-rule-missing", "policy rule 199 is missing")
    served.vqctl("repair", "--vpn", 7, check=True)
    assert why(served) == {}


@pytest.mark.parametrize("words", [["flush", "ruleset"], ["flush", "chain", "inet", "kavel_dns_0_9", "prerouting"]])
def test_steering_rules_are_flushed(served, words):
    run("ip", "netns", "exec", "vpn_7", "nft", *words)
    expect_finding(served, "steering-missing", "the steering rule is missing", ["repair-failed"])


@pytest.mark.parametrize(("change", "file"), [
    ({"dnsmxhost": []}, "Mxhost.conf"),
    ({"dnsproxies": [{**FORWARD, "domains": ["lab.example"]}]}, "DnsProxy.conf"),
])
def test_change_that_waits_for_a_restart(served, change, file):
    content = {"dnsservers": [{"dnsserver": "10.7.0.53"}, {"dnsserver": "203.0.113.53", "ifname": "wan0"}],
               "dnsproxies": [FORWARD],
               "dnsmxhost": [{"sourcedomain": "vpn7.example", "targetdomain": "mail.vpn7.example", "preference": 10}],
               **change}
    served.apply(message(operation="reload", **content))
    expect_finding(served, "restart-pending", f"{file} has changed since the instance started")
    served.apply(message(operation="reboot", **content))
    assert why(served) == {}


def test_reload_that_changes_nothing_waits_for_nothing(served):
    content = {"dnsservers": [{"dnsserver": "10.7.0.53"}, {"dnsserver": "203.0.113.53", "ifname": "wan0"}],
               "dnsproxies": [FORWARD],
               "dnsmxhost": [{"sourcedomain": "vpn7.example", "targetdomain": "mail.vpn7.example", "preference": 10}]}
    served.apply(message(operation="reload", **content))
    assert why(served) == {}


def test_label_of_a_host_is_too_long(unattended):
    long = f"{'a' * 40}-{'b' * 40}.example"
    unattended.apply(message(dnshosts=[{"domain": "nas.vpn7.example", "ip": "192.168.7.10"},
                                       {"domain": long, "ip": "192.168.7.11"}]))
    expect_finding(unattended, "host-skipped", "hosts, line 2: dnsmasq skips a name with a label of 81 characters")


@pytest.mark.parametrize("line", [f"mx-host={'a' * 64}.example,mail.example,10", "mx-host=a.example,mail.example,65536"])
def test_mx_record_that_dnsmasq_refuses(served, line):
    (DIRECTORY / "dnsmasq.d/Mxhost.conf").write_text(line + "\n")
    words = "bad MX preference" if line.endswith("65536") else "bad MX name"
    expect_finding(served, "files-rejected", words, ["files-changed", "restart-pending", "repair-failed"])


@pytest.mark.parametrize("mistake", [{"preference": 65536}, {"sourcedomain": f"{'a' * 40}-{'b' * 40}.example"}])
def test_mx_record_of_a_message_is_refused_with_its_field(served, mistake):
    mx = {"sourcedomain": "vpn7.example", "targetdomain": "mail.vpn7.example", "preference": 10, **mistake}
    assert f"dnsmxhost[0].{next(iter(mistake))}" in served.refused(message(dnsmxhost=[mx]))


def test_own_file_with_a_bad_line_before_a_restart(served):
    (DIRECTORY / "dnsmasq.d/own.conf").write_text("no-such-option\n")
    expect_finding(served, "files-rejected", "bad option at line 1 of", ["restart-pending"])


def test_own_file_with_a_bad_line_after_a_restart(served):
    (DIRECTORY / "dnsmasq.d/own.conf").write_text("no-such-option\n")
    assert served.vqctl("apply", "-", input=json.dumps(message())).returncode == 4
    expect_finding(served, "start-failed", "bad option at line 1 of")


def test_store_is_locked(keeping):
    keeping.apply(message(persistentflag=True))
    with contextlib.closing(sqlite3.connect(STORE, isolation_level=None)) as store:
        store.execute("BEGIN IMMEDIATE")
        expect_finding(keeping, "store-locked", "another program has locked the store")
        store.execute("ROLLBACK")
    assert why(keeping) == {}


def test_store_is_corrupt(keeping):
    keeping.apply(message(persistentflag=True))
    keeping.stop()
    STORE.write_bytes(b"garbage" * 1000)
    keeping.start()
    expect_finding(keeping, "store-unreadable", "the store cannot be read: ", ["repair-failed"])


def test_namespace_is_gone(box):
    run("ip", "netns", "add", "short_lived")
    box.configure(vpn_config(7), {"id": 9, "namespace": "short_lived", "lan": [], "wan": []}, watch={"repair": False})
    box.start()
    box.apply(message(9, dnsservers=[]))
    run("ip", "netns", "del", "short_lived")
    assert why(box, 9)["namespace-missing"] == ["namespace short_lived does not exist"]


def test_no_inotify_instance_is_left(box, monkeypatch):
    box.configure(vpn_config(7), watch={"repair": False})
    with monkeypatch.context() as preloaded:
        preloaded.setenv("LD_PRELOAD", str(BUILD / "no_inotify.so"))
        preloaded.setenv("ASAN_OPTIONS", "verify_asan_link_order=0")
        box.start()
    assert box.vqctl("apply", "-", input=json.dumps(message())).returncode == 4
    expect_finding(box, "inotify-limit", "no inotify instance is left", ["start-failed"])
    assert any("failed to create inotify" in text for text in why(box)["start-failed"])


@pytest.mark.parametrize(("content", "words"), [
    ({"dnsproxies": [{"domains": ["corp.example"], "serverips": ["192.168.7.1"]}]},
     "the forward of corp.example goes to 192.168.7.1, which is an address of the namespace itself"),
    ({"dnsservers": [{"dnsserver": "10.7.0.1"}]}, "upstream 10.7.0.1 is an address of the namespace itself"),
])
def test_server_is_an_own_address(unattended, content, words):
    unattended.apply(message(**content))
    expect_finding(unattended, "server-loop", words)


def test_hosts_cannot_be_read(served):
    (DIRECTORY / "hosts").chmod(0o600)
    expect_finding(served, "files-unreadable", f"{DIRECTORY}/hosts cannot be read by dnsmasq's user",
                   ["files-changed", "repair-failed"])


def test_directory_is_closed(served):
    pathlib.Path("/etc/kavel").chmod(0o700)
    expect_finding(served, "files-unreadable", "/etc/kavel is closed to dnsmasq's user",
                   ["files-changed", "repair-failed"])


def test_status_tells_what_is_seen_at_once(served):
    """The same findings, as far as they need no question to anybody."""
    run("ip", "-n", "vpn_7", "link", "set", "lan1", "down")
    run("ip", "-n", "vpn_7", "rule", "del", "priority", "199")
    (DIRECTORY / "hosts").chmod(0o600)
    with undone("ip -n vpn_7 link set lan1 up"):
        assert {"link-down", "route-rule-missing", "files-unreadable"} <= set(served.status()["codes"])


def test_two_vpns_are_told_apart(served):
    served.apply(message(8, dnsservers=[{"dnsserver": "10.8.0.99"}]))
    done = served.vqctl("why")
    assert done.returncode == 1
    assert done.stdout.splitlines() == [
        "vpn 8: upstream-silent: upstream 10.8.0.99 does not answer",
        "    do: ip netns exec vpn_8 dig @10.8.0.99; check that server and the way to it"]
    expect("192.168.8.10", "nas.vpn8.example", vpn=8)

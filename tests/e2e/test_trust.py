"""Whom the agent ends and signals, and whether its answers are true."""

import contextlib
import json
import os
import pathlib
import subprocess

import pytest

from box import alive, ask, end, expect, instance_pid, instances, message, pid_file, run, vpn_config, wait_until

APPLIED = "standard input: vpn 7: applied"


def apply(box, one):
    return box.vqctl("apply", "-", input=json.dumps(one))


def check(box, one):
    return box.vqctl("check", "-", input=json.dumps(one))


def memory_mib(box):
    status = pathlib.Path(f"/proc/{box.agent.pid}/status").read_text()
    (line,) = (line for line in status.splitlines() if line.startswith("VmRSS:"))
    return int(line.split()[1]) / 1024


@contextlib.contextmanager
def tcp_connections(count, vpn=7):
    """Connections of the VPN's client to the instance's TCP port that send nothing."""
    script = (f"import socket, sys, time\n"
              f"held = [socket.create_connection(('192.168.{vpn}.1', 53)) for _ in range({count})]\n"
              f"print('open', flush=True)\n"
              f"sys.stdin.read()\n")
    client = subprocess.Popen(["ip", "netns", "exec", f"client_{vpn}", "/usr/bin/python3", "-c", script],
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    try:
        assert client.stdout.readline() == "open\n"
        yield
    finally:
        client.kill()
        client.wait()


@pytest.fixture
def bystander():
    process = subprocess.Popen(["sleep", "infinity"])
    yield process
    process.kill()
    process.wait()


# ---- Nobody in ----

def test_dnsmasqs_user_cannot_direct_signals_at_other_processes(running, bystander):
    """The user that dnsmasq runs as writes a pid of root into the pid file, as often as it can."""
    running.apply(message())
    assert os.stat(pid_file()).st_uid == 0
    script = (f"import os\n"
              f"os.setuid({os.stat(f'/proc/{instance_pid()}').st_uid or 65534})\n"
              f"handle = None\n"
              f"while True:\n"
              f"    try:\n"
              f"        handle = open('{pid_file()}', 'r+')\n"
              f"    except OSError:\n"
              f"        pass\n"
              f"    try:\n"
              f"        handle.seek(0); handle.write('{bystander.pid}\\n'); handle.flush()\n"
              f"    except (OSError, AttributeError):\n"
              f"        pass\n")
    hostile = subprocess.Popen(["/usr/bin/python3", "-c", script])
    try:
        for number in range(15):
            operation = "reboot" if number % 3 == 0 else "reload"
            apply(running, message(operation=operation, dnshosts=[{"domain": "x.example", "ip": f"10.0.0.{number}"}]))
            assert bystander.poll() is None, operation
    finally:
        hostile.kill()
        hostile.wait()
    running.apply(message())
    expect("192.168.7.10", "nas.vpn7.example")


def test_a_pid_of_another_vpn_does_not_end_its_instance(unattended):
    unattended.apply(message(7), message(8))
    other = instance_pid(8)
    pid_file(7).write_text(f"{other}\n")

    unattended.apply(message(7))

    assert alive(other)
    assert instances(8) == [other]
    expect("192.168.7.10", "nas.vpn7.example")


def test_a_restart_of_vpn_7_does_not_end_the_instance_of_vpn_70(box):
    """An open connection keeps port 53 in use, so that the module looks for processes with the VPN's tag."""
    run("ip", "netns", "add", "vpn_70")
    try:
        box.configure(vpn_config(7), {"id": 70})
        box.start()
        box.apply(message(7), message(70, dnsservers=None))
        other = instance_pid(70)
        with tcp_connections(1):
            box.apply(message(7))
        assert instances(70) == [other]
        expect("192.168.7.10", "nas.vpn7.example")
    finally:
        box.clean_up()
        run("ip", "netns", "del", "vpn_70")


def test_held_connections_do_not_delay_a_restart(running):
    """dnsmasq has a child for each TCP connection, which ignores SIGTERM."""
    running.apply(message())
    old = instance_pid()
    with tcp_connections(20):
        wait_until(lambda: len(instances(7)) == 21, "a child for each connection")
        running.apply(message())
        assert instances(7) == [instance_pid()]
    assert instance_pid() != old
    assert "ignored SIGTERM" not in running.log()


def test_children_of_an_instance_that_was_killed_do_not_delay_a_restart(unattended):
    unattended.apply(message())
    with tcp_connections(5):
        wait_until(lambda: len(instances(7)) == 6, "a child for each connection")
        end(instance_pid())
        done = apply(unattended, message())
        assert done.stdout == APPLIED + "\n"
        assert done.stderr.count("also ended process") == 5
        assert instances(7) == [instance_pid()]
    assert "ignored SIGTERM" not in unattended.log()


def test_a_process_of_another_user_is_not_taken_for_an_instance(running):
    running.apply(message(enable=False))
    arguments = ["dnsmasq", "--pid-file=/var/run/kvl_dns_vpn_7.pid", "--dns-forward-max=1000"]
    script = f"import os; os.setuid(12345); os.execv('/bin/sleep', {['sleep', '60']!r})"
    forged = subprocess.Popen(["/usr/bin/python3", "-c", script, *arguments])
    try:
        running.apply(message(), message(enable=False))
        assert forged.poll() is None
    finally:
        forged.kill()
        forged.wait()


# ---- The truth ----

def test_a_taken_port_is_not_reported_as_a_running_service(running):
    holder = subprocess.Popen(["ip", "netns", "exec", "vpn_7", "/usr/bin/python3", "-c",
                               "import socket, time\n"
                               "held = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)\n"
                               "held.bind(('0.0.0.0', 53))\nprint('bound', flush=True)\ntime.sleep(600)"],
                              stdout=subprocess.PIPE, text=True)
    try:
        assert holder.stdout.readline() == "bound\n"
        done = apply(running, message())
        assert done.returncode == 4
        assert done.stdout == (APPLIED + ", NOT RUNNING: the instance did not come up: "
                               "dnsmasq: failed to create listening socket for port 53: Address already in use\n")
    finally:
        holder.kill()
        holder.wait()
    running.apply(message())


def test_what_dnsmasq_cannot_start_with_does_not_end_the_instance(running):
    running.apply(message())
    pid = instance_pid()
    label = "a" * 40 + "-" + "a" * 40
    bad = {
        "dnsmxhost[0].preference: it is 65536": {"dnsmxhost": [
            {"targetdomain": "mx.example", "sourcedomain": "example.org", "preference": 65536}]},
        "dnsmxhost[0].targetdomain: a label has 81 characters": {"dnsmxhost": [
            {"targetdomain": f"{label}.example", "sourcedomain": "example.org", "preference": 1}]},
        "dnsproxies[0].domains[1]: a label has 81 characters": {"dnsproxies": [
            {"domains": ["good.example", f"{label}.example"], "serverips": ["10.7.0.53"]}]},
        "dnsservers[0].ifname: dnsmasq's configuration cannot hold": {"dnsservers": [
            {"dnsserver": "10.7.0.53", "ifname": "a#b@c"}]},
    }
    for reason, fields in bad.items():
        assert f"refused (-22 Invalid argument): {reason}" in running.refused(message(**fields))
        assert f"would be refused (-22 Invalid argument): {reason}" in running.refused(message(**fields), "check")
    assert instance_pid() == pid
    assert ask("nas.vpn7.example") == ["192.168.7.10"]


def test_dnsmasq_starts_with_what_is_just_below_the_limits(running):
    label = "a" * 63
    longest = ".".join(["a" * 62, "b" * 62, "c" * 62, "d" * 61, "org"])
    assert len(longest) == 254
    running.apply(message(
        dnsmxhost=[{"targetdomain": f"{label}.example", "sourcedomain": longest, "preference": 65535}],
        dnsproxies=[{"domains": [f"A{label[1:]}.example", longest], "serverips": ["10.7.0.53"]}]))


def test_a_skipped_forward_is_not_left_unsaid(running):
    one = message(dnsproxies=[{"domains": ["good.example", "under_score.example"], "serverips": ["10.7.0.53"]}])
    told = 'vpn 7: dnsproxies[0].domains[1]: is skipped: "under_score.example" is not a domain name\n'
    for done in (check(running, one), apply(running, one)):
        assert done.returncode == 0
        assert done.stderr == "vqctl: standard input: " + told


def test_check_does_not_pass_what_apply_refuses(running):
    assert "would be refused (-2 No such file or directory): vpn 99 is not configured" in running.refused(
        message(99), "check")
    assert "would be refused (-22 Invalid argument): operation: it is 5; 0 is reload" in running.refused(
        message(operation=5), "check")
    done = check(running, message(dnsservers=[{"dnsserver": "10.7.0.53", "ifname": "absent0"}]))
    assert done.stderr == "vqctl: standard input: vpn 7: dnsservers[0].ifname: interface absent0: No such device\n"


# ---- Costs ----

def test_names_with_a_blank_do_not_grow_the_agent(running):
    """The module compiles a pattern for each name and does not free it for a name with a blank: 1.7 GB a message. The
    bound leaves room for freed memory that the process keeps, which a sanitizer does on purpose."""
    names = [f"name {number}.example" for number in range(8192)]
    forwards = [{"domains": names[first:first + 8], "serverips": ["10.7.0.53"]} for first in range(0, 8192, 8)]
    check(running, message(dnsproxies=forwards))
    before = memory_mib(running)
    for _ in range(3):
        assert check(running, message(dnsproxies=forwards)).returncode == 0
    assert memory_mib(running) < before + 256


def test_every_line_of_the_module_names_its_vpn(running):
    running.apply(message(7), message(8), message(7, operation="reload"))
    lines = [line for line in running.log().splitlines() if "advanceddns" in line and "StopOldVersion" not in line]
    unnamed = [line for line in lines if "vpn 7: <" not in line and "vpn 8: <" not in line]
    assert [line for line in unnamed if "Dnsmasq table is empty" not in line] == []


def test_a_recovery_of_vpn_7_does_not_end_the_instance_of_vpn_70(box):
    """VPN 70 is not stored: the next agent must leave its instance alone, also while it looks for processes of VPN 7."""
    run("ip", "netns", "add", "vpn_70")
    try:
        box.configure(vpn_config(7), {"id": 70}, persistence=True, store="/run/kavel-store/agent.db")
        box.start()
        box.apply(message(7, persistentflag=True), message(70, dnsservers=None))
        other = instance_pid(70)
        with tcp_connections(1):
            wait_until(lambda: len(instances(7)) == 2, "a child for the connection")
            end(instance_pid(7))
            box.stop()
            box.start()
        assert instances(70) == [other]
        expect("192.168.7.10", "nas.vpn7.example")
        assert "vpn 7: <NOTICE:advanceddns>[vqagent][VQCtrl_DnsmasqStop" in box.log()
    finally:
        box.clean_up()
        run("ip", "netns", "del", "vpn_70")

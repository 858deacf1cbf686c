"""Invalid messages, configurations and calls: each is refused with one clear line, and changes nothing."""

import json

import pytest

from box import (BUILD, CONFIG, DNSMASQ, SOCKET, alive, end, expect, instance_pid, instances, message, routes, run,
                 vpn_config)


def files_of(vpn=7):
    return {path: path.read_bytes() for path in (DNSMASQ / f"vpn_{vpn}").rglob("*") if path.is_file()}


def test_invalid_domain_changes_nothing(running):
    running.apply(message())
    expect("192.168.7.10", "nas.vpn7.example")
    before, pid = files_of(), instance_pid()
    hosts = [{"domain": "good.example", "ip": "10.0.0.1"}] * 3 + [{"domain": "bad_name.example", "ip": "10.0.0.1"}]

    said = running.refused(message(dnshosts=hosts))

    assert said == "vpn 7: refused (-22 Invalid argument): dnsmasq dns host[3].domain is invalid"
    assert files_of() == before
    assert instance_pid() == pid


def test_unknown_operation_is_refused_after_the_files_are_written(running):
    said = running.refused(message(operation=2))

    assert said == "vpn 7: refused (-22 Invalid argument): Dnsmasq operation(2) failed(22:Invalid argument)"
    assert b"nas.vpn7.example" in files_of()[DNSMASQ / "vpn_7/hosts"]
    assert routes() == ["10.7.0.53"], "the routes are kept"
    assert instances() == []


@pytest.mark.parametrize("name", ["a\nport=5353", "eth 0", "../eth0", "\x01"])
def test_interface_name_that_would_break_its_line_is_refused(running, name):
    running.apply(message())
    before = files_of()
    servers = [{"dnsserver": "10.7.0.53"}, {"dnsserver": "10.7.0.54", "ifname": name}]

    for command in ("apply", "check"):
        said = running.refused(message(dnsservers=servers), command=command)
        assert "(-22 Invalid argument): dnsservers[1].ifname is not an interface name" in said

    assert files_of() == before


def test_quoted_domain_cannot_forge_a_log_line(running):
    running.apply(message(dnsproxies=[{"domains": ["a\n<3>ERROR forged\x1b[2J"], "serverips": ["10.7.0.53"]}]))

    quoted = [line for line in running.log().splitlines() if "forged" in line]

    assert quoted and all(line.startswith("    <3>ERROR forged?[2J") for line in quoted), quoted


def test_check_applies_nothing(running):
    before = files_of()

    done = running.vqctl("check", "-", input=json.dumps(message()))
    assert done.returncode == 0
    assert done.stdout.startswith("standard input: vpn 7: would apply: enabled, reboot, 1 host")
    assert "would be refused (-22 Invalid argument): dnsmasq dns server[1] is repeat" in running.refused(
        message(dnsservers=[{"dnsserver": "10.0.0.1"}] * 2), command="check")

    assert files_of() == before
    assert instances() == []


def test_vpn_that_is_not_configured_is_refused(running):
    said = running.refused(message(99))

    assert said == "vpn 99: refused (-2 No such file or directory): vpn 99 is not configured"
    assert not (DNSMASQ / "vpn_99").exists()
    for command in ("init", "release"):
        refused = running.vqctl("vpn", command, "99")
        assert refused.returncode == 2
        assert "vpn 99 is not configured" in refused.stdout + refused.stderr


def test_namespace_that_was_deleted(box):
    run("ip", "netns", "add", "short_lived")
    box.configure({"id": 9, "namespace": "short_lived"}, vpn_config(7))
    box.start()
    run("ip", "netns", "delete", "short_lived")

    said = box.refused(message(9, dnsservers=None))

    assert said.startswith("vpn 9: refused (-2 No such file or directory): "), said
    assert box.status(9)["problems"] == ["namespace short_lived does not exist"]
    box.apply(message(7))
    expect("192.168.7.10", "nas.vpn7.example")


def in_short_lived(*words):
    return run("ip", "-n", "short_lived", *words).stdout


def add_lan(peer):
    in_short_lived("link", "add", "lan0", "type", "veth", "peer", "name", peer)
    in_short_lived("link", "set", "lan0", "up")
    in_short_lived("link", "set", peer, "up")


def test_replaced_interfaces_and_namespaces_are_used_by_the_next_message(box):
    """Interfaces and namespaces can be created again with the same name. The next message uses the new ones."""
    def expect_route(server):
        box.apply(message(9, dnsservers=[{"dnsserver": server}]))
        assert in_short_lived("route", "show", "table", "199").split()[:3] == [server, "dev", "lan0"]

    run("ip", "netns", "add", "short_lived")
    add_lan("first")
    box.configure({"id": 9, "namespace": "short_lived", "lan": ["lan0"]})
    box.start()
    try:
        expect_route("10.9.0.53")

        in_short_lived("link", "delete", "lan0")
        in_short_lived("link", "add", "other0", "type", "veth", "peer", "name", "other1")
        add_lan("second")
        expect_route("10.9.0.54")

        run("ip", "netns", "delete", "short_lived")
        run("ip", "netns", "add", "short_lived")
        add_lan("third")
        expect_route("10.9.0.55")
        assert box.status(9)["problems"] == []
    finally:
        run("ip", "netns", "delete", "short_lived")


BAD_CONFIGURATIONS = {
    "a duplicate": (
        {"vpns": [vpn_config(7), vpn_config(7)]}, "vpns[1].id: 7 is configured twice"),
    "an unknown key": (
        {"vpns": [vpn_config(7, colour="red")]}, "vpns[0].colour: unknown key"),
    "an unknown key at the top": ({"verbose": True}, "verbose: unknown key"),
    "a wrong type": ({"vpns": [{"id": "7"}]}, "vpns[0].id: "),
    "an unknown platform": ({"platform": "toaster"}, 'platform: '),
    "an unknown level": ({"log": "loud"}, "log: "),
    "a WAN without a name": ({"vpns": [vpn_config(7, wan=[{"sysRoute": True}])]}, "vpns[0].wan[0].name: "),
}


@pytest.mark.parametrize("case", BAD_CONFIGURATIONS)
def test_invalid_configuration_is_reported_in_one_line(box, case):
    changes, line = BAD_CONFIGURATIONS[case]
    vpns = changes.get("vpns", [])
    box.configure(*vpns, **{key: value for key, value in changes.items() if key != "vpns"})

    done = run(BUILD / "vqagent", check=False, timeout=10)

    assert done.returncode == 2
    said = (done.stdout + done.stderr).splitlines()
    assert len(said) == 1, said
    assert said[0].startswith(f"vqagent: {CONFIG}: {line}"), said
    assert not SOCKET.exists()


@pytest.mark.parametrize("text", ["{", "", "[]", '{"platform": "cpe"} x'])
def test_configuration_that_is_not_one_object(box, text):
    CONFIG.write_text(text)
    done = run(BUILD / "vqagent", check=False, timeout=10)
    assert done.returncode == 2
    assert len((done.stdout + done.stderr).splitlines()) == 1


def test_second_agent_reports_the_pid_of_the_first(running):
    pid = running.agent.pid

    done = run(BUILD / "vqagent", check=False, timeout=10)

    assert done.returncode == 1
    assert (done.stdout + done.stderr).splitlines() == [f"vqagent: already running as pid {pid}"]
    assert alive(pid)
    running.apply(message())


def test_binary_input_that_is_no_message_is_refused(running, tmp_path):
    for name, content in {"empty": b"", "garbage": b"\xff" * 40, "truncated": b"\x08\x01\x10"}.items():
        path = tmp_path / name
        path.write_bytes(content)
        done = running.vqctl("apply", "--binary", path)
        assert done.returncode == 1, name
        assert "refused (-22 Invalid argument)" in done.stdout + done.stderr
    running.apply(message())


def test_vqctl_without_an_agent(box):
    done = box.vqctl("status")
    assert done.returncode == 3
    assert (done.stdout + done.stderr).splitlines() == [
        "vqctl: cannot reach the agent at /run/kavel/agent.sock: No such file or directory"]


def test_full_disk_keeps_the_old_files(unattended):
    """No space below /etc/kavel: the message is refused; the old files and the running instance are kept."""
    unattended.apply(message())
    expect("192.168.7.10", "nas.vpn7.example")
    hosts = DNSMASQ / "vpn_7/hosts"
    run("mount", "-t", "tmpfs", "-o", "size=64k", "tmpfs", DNSMASQ / "vpn_7")
    try:
        assert unattended.vqctl("vpn", "init", "7").returncode == 0
        unattended.apply(message())
        filler = DNSMASQ / "vpn_7/filler"
        with filler.open("wb", buffering=0) as out, pytest.raises(OSError):
            while True:
                out.write(b"x" * 4096)
        before = hosts.read_bytes()
        many = [{"domain": f"host{number}.example", "ip": "10.0.0.1"} for number in range(900)]

        said = unattended.refused(message(dnshosts=many))

        assert said == ("vpn 7: refused (-28 No space left on device): "
                        "Write to dnsmasq host failed(28:No space left on device)")
        assert hosts.read_bytes() == before
        assert list((DNSMASQ / "vpn_7").glob(".*")) == []
        filler.unlink()
        unattended.apply(message(dnshosts=many))
    finally:
        for pid in instances():
            end(pid)
        run("umount", DNSMASQ / "vpn_7")

"""The agent itself is ended, killed, or given another configuration: what is in force stays, and comes back."""

import contextlib
import fcntl
import json
import pathlib
import signal
import socket
import subprocess
import time

import pytest

from box import (DNSMASQ, STATE, ask, end, expect, instance_pid, instances, message, pid_file, run, tables, vpn_config,
                 wait_until)
from faults import (ANYWHERE, ROOT, Client, configure, differs, end_agent, hang_up, kept, kill, log_since,
                    remove_surroundings, row, serve, snapshot, wait_until_right)


@pytest.fixture
def served(box):
    return serve(box)


def marks(vpn=7):
    """Changes with each file that is written, even with the same content: an instance would read it again."""
    return {path: (path.stat().st_ino, path.stat().st_mtime_ns, path.stat().st_ctime_ns)
            for path in [*(DNSMASQ / f"vpn_{vpn}").rglob("*"), pid_file(vpn)]}


# ---- the agent ends and starts ----


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGKILL])
@pytest.mark.parametrize("is_kept", [True, False], ids=["stored", "not stored"])
def test_an_agent_that_starts_again_disturbs_nothing(served, number, is_kept):
    """The instance, its cache, its files, its rule stay as they are; what is not stored, too."""
    served.apply(message(persistentflag=is_kept, dnshosts=[{"domain": "nas.vpn7.example", "ip": "192.168.7.77"}]))
    expect("192.168.7.77", "nas.vpn7.example")
    before, unchanged, pid = snapshot(), marks(), instance_pid()
    mark = len(served.log())

    with Client(timeout=2.0) as client:
        end_agent(served, number)
        time.sleep(0.3)
        served.start()
        time.sleep(1.5)

    assert client.lost == 0
    assert not differs(before) and marks() == unchanged and instance_pid() == pid
    assert (row() is not None) == is_kept
    started = log_since(served, mark)
    assert "recovered: 1 in force, 1 running" in started
    assert "repaired" not in started and "starting its instance" not in started
    status = served.status()
    assert status["problems"] == [] and "repairs" not in status and "ends" not in status


def test_what_was_broken_while_no_agent_ran_is_repaired_at_the_start(served):
    before = snapshot()
    end_agent(served)
    kill(instance_pid())
    run("ip", "netns", "exec", "vpn_7", "nft", "flush", "ruleset")
    run("ip", "-n", "vpn_7", "route", "flush", "table", "199")
    (DNSMASQ / "vpn_7/hosts").write_text("192.168.7.66 nas.vpn7.example\n")

    served.start()

    wait_until_right(before)
    expect("192.168.7.10", "nas.vpn7.example", server=ANYWHERE)
    assert served.status()["problems"] == []


def test_a_message_that_is_not_stored_outlives_agent_and_instance(served):
    """It is in force until the box is restarted."""
    served.apply(message(dnshosts=[{"domain": "nas.vpn7.example", "ip": "192.168.7.77"}]))
    before = snapshot()
    end_agent(served)
    end(instance_pid())

    served.start()

    wait_until_right(before)
    expect("192.168.7.77", "nas.vpn7.example")
    assert row() is None


def test_a_refused_message_is_never_brought_back(served):
    before = snapshot()
    served.refused(kept(dnshosts=[{"domain": "bad_name.example", "ip": "10.0.0.1"}]))
    end(instance_pid())
    wait_until_right(before)
    end_agent(served)
    end(instance_pid())

    served.start()

    wait_until_right(before)
    expect("192.168.7.10", "nas.vpn7.example")


def test_an_agent_over_its_memory_answers_and_exits_to_be_started_again(box):
    box.configure(vpn_config(7), watch={"memoryMiB": 8})
    box.start()

    box.apply(message())
    box.vqctl("status")

    assert box.agent.wait(timeout=10) == 1
    assert "uses more memory than it may" in box.log()
    expect("192.168.7.10", "nas.vpn7.example")
    pid = instance_pid()
    box.configure(vpn_config(7))
    box.start()
    assert instance_pid() == pid and box.status()["problems"] == []


def test_the_loop_tells_the_service_manager_that_it_runs(box):
    """A loop that hangs tells nothing: nobody else sends it."""
    box.configure(vpn_config(7))
    address = "/run/watchdog.sock"
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as notify:
        notify.bind(address)
        notify.settimeout(10)
        box.agent = box.spawn(NOTIFY_SOCKET=address, WATCHDOG_USEC="500000")

        def next_watchdog():
            while b"WATCHDOG=1" not in notify.recv(4096):
                pass

        next_watchdog()
        next_watchdog()
        box.agent.send_signal(signal.SIGSTOP)
        notify.settimeout(2)
        with pytest.raises(TimeoutError):
            while True:
                notify.recv(4096)
        box.agent.send_signal(signal.SIGCONT)
        notify.settimeout(10)
        next_watchdog()


def test_a_long_start_extends_the_time_that_the_service_manager_waits(box):
    """The launch of an earlier agent that never becomes visible delays the start by 2 s."""
    box.configure(vpn_config(7), vpn_config(8))
    STATE.mkdir(exist_ok=True)
    address = "/run/start.sock"
    told = []
    with (socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as notify, (STATE / "vpn_7.launch").open("w") as mark):
        fcntl.flock(mark, fcntl.LOCK_SH)
        notify.bind(address)
        notify.settimeout(10)
        box.agent = box.spawn(NOTIFY_SOCKET=address)
        while not told or not told[-1].startswith("READY=1"):
            told.append(notify.recv(4096).decode())

    assert told[-1] == "READY=1\nSTATUS=serving 2 VPNs"
    assert len(told[:-1]) >= 2
    assert set(told[:-1]) == {"STATUS=starting: 0 of 2 VPNs are back\nEXTEND_TIMEOUT_USEC=60000000"}


@contextlib.contextmanager
def table_of_another(name):
    """A table that only its owner can change, who ends with the block."""
    owner = subprocess.Popen(["ip", "netns", "exec", "vpn_7", "nft", "-i"], stdin=subprocess.PIPE,
                             stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, text=True)
    owner.stdin.write(f"delete table inet {name}\nadd table inet {name} {{ flags owner; }}\n")
    owner.stdin.flush()
    wait_until(lambda: "flags owner" in run("ip", "netns", "exec", "vpn_7", "nft", "list", "ruleset").stdout,
               "the table has an owner")
    try:
        yield
    finally:
        owner.stdin.close()
        owner.wait()


def test_the_instance_of_a_message_that_failed_is_not_kept(served):
    """Its rule cannot be installed: the message is refused after its instance was started."""
    before = snapshot()
    with table_of_another(*tables()):
        said = served.refused(message(dnshosts=[{"domain": "other.example", "ip": "10.0.0.1"}]))
        assert said.startswith("vpn 7: refused (-")
        wait_until(lambda: ask("nas.vpn7.example", server="192.168.7.1") == ["192.168.7.10"], "the message before")
        assert ask("other.example", server="192.168.7.1") == []

    wait_until_right(before)


def test_the_status_shows_the_revision_in_force(served):
    assert "revision" not in served.status()
    for revision in ("rev-1", "rev-2"):
        done = served.vqctl("apply", "--revision", revision, "-", input=json.dumps(kept()))
        assert done.returncode == 0, done.stderr
        assert served.status()["revision"] == revision
    served.refused(kept(operation=7))
    assert "vpn 7: revision rev-2" in served.vqctl("status", "--vpn", "7").stdout

    end_agent(served)
    end(instance_pid())
    served.start()

    wait_until(lambda: served.status()["state"] == "running", "the instance is back")
    assert served.status()["revision"] == "rev-2"
    served.apply(kept())
    assert "revision" not in served.status()


# ---- the start without all that it needs ----


@pytest.fixture
def without_ninth(box):
    """VPN 9 is in force; agent, instances and the namespace of VPN 9 are gone."""
    run(ROOT / "scripts/lab", "up", 9)
    serve(box, vpn_config(7), vpn_config(9)).apply(kept(9))
    expect("192.168.9.10", "nas.vpn9.example", vpn=9)
    end_agent(box)
    for pid in instances():
        end(pid)
    remove_surroundings(9)
    yield box
    remove_surroundings(9)


def test_a_vpn_without_its_namespace_is_served_when_it_appears(without_ninth):
    """The other VPN is served at once."""
    began = time.monotonic()
    without_ninth.start()
    expect("192.168.7.10", "nas.vpn7.example", server=ANYWHERE)
    assert time.monotonic() - began < 2
    asked = without_ninth.vqctl("status", "--vpn", "9")
    assert asked.returncode == 1 and "namespace vpn_9 does not exist" in asked.stdout
    assert "recovered: 2 in force, 1 running" in without_ninth.log()

    run(ROOT / "scripts/lab", "up", 9)

    expect("192.168.9.10", "nas.vpn9.example", vpn=9, server=ANYWHERE)
    expect("198.51.100.9", "vpn9.example.net", vpn=9)
    wait_until(lambda: not without_ninth.status(9)["problems"], "the status tells no problem")
    assert ask("nas.vpn7.example") == ["192.168.7.10"]


def test_a_vpn_without_an_interface_is_served_without_it(box):
    """The interface of the upstream server is missing when the agent starts."""
    run("ip", "-n", "vpn_8", "link", "set", "lan0", "name", "away")
    try:
        box.configure(vpn_config(7), vpn_config(8), persistence=False)
        box.start().apply(message(7))
        expect("192.168.7.10", "nas.vpn7.example")
        box.vqctl("apply", "-", input=json.dumps(message(8, dnsservers=None)))
        assert 'interface "lan0" does not exist in namespace "vpn_8"' in box.status(8)["problems"]
        expect("192.168.8.10", "nas.vpn8.example", vpn=8)
    finally:
        run("ip", "-n", "vpn_8", "link", "set", "away", "down")
        run("ip", "-n", "vpn_8", "link", "set", "away", "name", "lan0")
        run("ip", "-n", "vpn_8", "link", "set", "lan0", "up")
    wait_until(lambda: not box.status(8)["problems"], "the status tells no problem")
    expect("192.168.8.10", "nas.vpn8.example", vpn=8, server=ANYWHERE)


# ---- SIGHUP ----


def test_a_vpn_is_added_without_touching_the_others(box):
    serve(box, vpn_config(7))
    before, unchanged, pid = snapshot(), marks(), instance_pid()
    assert "not configured" in box.refused(kept(8))
    configure(box, vpn_config(7), vpn_config(8))

    with Client(timeout=2.0) as client:
        hang_up(box)
        wait_until(lambda: "vpn 8: is configured now" in box.log(), "VPN 8 is added")
        box.apply(kept(8))
        expect("192.168.8.10", "nas.vpn8.example", vpn=8, server=ANYWHERE)

    assert client.lost == 0
    assert not differs(before) and marks() == unchanged and instance_pid() == pid
    end(instance_pid(8))
    expect("192.168.8.10", "nas.vpn8.example", vpn=8)


def test_a_vpn_that_is_added_again_is_served_as_before(served):
    """Its instance was killed while it was not configured."""
    served.apply(kept(8))
    before = snapshot(8)
    configure(served, vpn_config(7))
    hang_up(served)
    end(instance_pid(8))
    time.sleep(0.5)
    assert instances(8) == []
    configure(served, vpn_config(7), vpn_config(8))

    hang_up(served)

    wait_until_right(before, 8)
    expect("192.168.8.10", "nas.vpn8.example", vpn=8, server=ANYWHERE)


def test_a_vpn_that_is_removed_keeps_its_instance(served):
    """It may have been removed by mistake."""
    served.apply(kept(8))
    before = snapshot(8)
    configure(served, vpn_config(7))

    assert "vpn 8: is not configured any more" in wait_until(
        lambda: (text := hang_up(served)) and "vpn 8" in served.log() and served.log(), "VPN 8 is removed")

    assert "not configured" in served.refused(kept(8))
    assert not differs(before, 8)
    assert ask("nas.vpn8.example", vpn=8) == ["192.168.8.10"]
    assert ask("nas.vpn7.example") == ["192.168.7.10"]


def test_changed_interfaces_change_routes_and_rule(served):
    """The server of 203.0.113.0/24 was reached over lan0; the instance keeps running."""
    pid = instance_pid()
    before = ruleset()
    configure(served, vpn_config(7, lan=["lan1"]), vpn_config(8))

    hang_up(served)

    wait_until(lambda: ruleset() != before, "the rule is changed")
    assert "lan0" in before and "lan0" not in ruleset()
    expect("192.168.7.10", "nas.vpn7.example", server=ANYWHERE)
    wait_until(lambda: not served.status()["problems"], "the status tells no problem")
    assert instance_pid() == pid


def ruleset(vpn=7):
    return run("ip", "netns", "exec", f"vpn_{vpn}", "nft", "--stateless", "list", "ruleset").stdout


@pytest.mark.parametrize("text", ['{"platform": "cpe", "vpns": [{"id": 7}', '{"platform": "cpe", "vpns": [{"id": 0}]}',
                                  '{"platform": "pop", "vpns": [{"id": 7}]}'],
                         ids=["cut off", "wrong", "another platform"])
def test_a_mistake_in_the_configuration_keeps_the_old_one(served, text):
    before, pid = snapshot(), instance_pid()
    pathlib.Path("/etc/kavel/agent.json").write_text(text, encoding="utf-8")

    assert "the configuration stays as it was" in hang_up(served)

    assert not differs(before) and instance_pid() == pid
    served.apply(kept(8))
    expect("192.168.8.10", "nas.vpn8.example", vpn=8)
    end(instance_pid())
    wait_until_right(before)

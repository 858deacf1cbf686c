"""Instances that take their time to come up: who waits for them, and who does not."""

import contextlib
import json
import pathlib
import select
import signal
import subprocess

import pytest

from box import BUILD, DNSMASQ, connect, expect, instance_pid, instances, message, read_frame, run, wait_until
from load import Message, result_of

PROGRAM = "/usr/sbin/dnsmasq"
ASIDE = pathlib.Path("/run/aside/dnsmasq")
GATE = pathlib.Path("/run/gate")

# Stands in for the program: of VPN 7 it waits at the gate before it becomes dnsmasq.
DOORMAN = f"""#!/bin/sh
case "$*" in *vpn_7.pid*)
    while ! [ -e {GATE} ]; do sleep 0.01; done
    [ "$(cat {GATE})" = fail ] && exit 1
esac
exec {ASIDE} "$@"
"""


@pytest.fixture
def gated(running):
    """Instances of VPN 7 come up, or fail, when the test says so."""
    ASIDE.parent.mkdir(exist_ok=True)
    ASIDE.touch()
    run("mount", "--bind", PROGRAM, ASIDE)
    doorman = pathlib.Path("/run/doorman")
    doorman.write_text(DOORMAN)
    doorman.chmod(0o755)
    run("mount", "--bind", doorman, PROGRAM)
    yield running
    open_gate()
    wait_until(lambda: not doormen(), "nobody at the gate")
    running.clean_up()
    run("umount", PROGRAM)
    run("umount", ASIDE)
    GATE.unlink()


def doormen():
    return run("pgrep", "-f", "^/bin/sh /usr/sbin/dnsmasq", check=False).stdout.split()


def open_gate(fate="open"):
    GATE.write_text(fate)


def send(peer, vpn, **fields):
    peer.sendall(Message(vpn, dnsservers=None, operation="reboot", persistentflag=False, **fields).request)


def is_answered(peer, within=0.0):
    return bool(select.select([peer], [], [], within)[0])


@contextlib.contextmanager
def peers(count):
    with contextlib.ExitStack() as stack:
        yield [stack.enter_context(connect()) for _ in range(count)]


def waiting_vqctl(*words):
    """The tool, which has no answer for a while."""
    asking = subprocess.Popen([str(BUILD / "vqctl"), *words], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    with pytest.raises(subprocess.TimeoutExpired):
        asking.wait(timeout=0.3)
    return asking


def test_others_do_not_wait(gated):
    with peers(2) as (slow, other):
        send(slow, 7)
        send(other, 8)
        assert result_of(read_frame(other)) == 0
        assert instances(8) == [instance_pid(8)]
        assert not is_answered(slow)

        open_gate()

        assert result_of(read_frame(slow)) == 0
    expect("192.168.7.10", "nas.vpn7.example")
    expect("192.168.8.10", "nas.vpn8.example", vpn=8)
    assert instances(7) == [instance_pid()]


def test_the_next_message_for_the_same_vpn_waits(gated):
    """Without the pid file of the first, the second would start a second instance beside it."""
    with peers(2) as (first, second):
        send(first, 7)
        wait_until(lambda: "vpn 7: applied" in gated.log(), "the first is applied")
        send(second, 7, dnshosts=[{"domain": "nas.vpn7.example", "ip": "192.168.7.20"}])
        assert not is_answered(second, within=0.3)
        assert not is_answered(first)

        open_gate()

        assert result_of(read_frame(first)) == 0
        assert result_of(read_frame(second)) == 0
    expect("192.168.7.20", "nas.vpn7.example")
    assert instances(7) == [instance_pid()]


def test_requests_of_one_peer_are_answered_in_order(gated):
    with peers(1) as (peer,):
        send(peer, 7)
        send(peer, 8)
        assert not is_answered(peer, within=0.3)

        open_gate()

        replies = [read_frame(peer) for _ in range(2)]
    assert [result_of(reply) for reply in replies] == [0, 0]
    log = gated.log()
    assert 0 < log.index("vpn 7: applied") < log.index("vpn 8: applied")


def test_status_waits_for_what_is_under_way(gated):
    """It tells of a box at rest: an instance on its way up is not one that is missing."""
    with peers(1) as (peer,):
        send(peer, 7)
        wait_until(lambda: "vpn 7: applied" in gated.log(), "the message is applied")
        asking = waiting_vqctl("status", "--json", "--vpn", "7")

        open_gate()

        (row,) = json.loads(asking.communicate()[0])
        assert result_of(read_frame(peer)) == 0
    assert row["alive"] and row["problems"] == []


def test_a_directory_in_use_soon_is_not_removed(gated):
    with peers(1) as (peer,):
        send(peer, 7)
        wait_until(lambda: "vpn 7: applied" in gated.log(), "the message is applied")
        asking = waiting_vqctl("vpn", "release", "7")

        open_gate()

        assert asking.wait(timeout=10) == 1
        assert result_of(read_frame(peer)) == 0
    expect("192.168.7.10", "nas.vpn7.example")


def test_one_that_fails_is_told_to_its_peer_alone(gated):
    with peers(2) as (slow, other):
        send(slow, 7)
        open_gate("fail")
        send(other, 8)
        assert b"did not come up" not in read_frame(other)
        assert b"the instance did not come up" in read_frame(slow)
    assert instances(7) == []
    assert "vpn 7: the instance did not come up" in gated.log()


def test_one_that_hangs_is_given_up_after_one_that_fails(gated):
    """Once no process of it is left, there is nothing to wait for, however long there would be."""
    (DNSMASQ / "vpn_8/dnsmasq.d/broken.conf").write_text("no-such-option\n")
    with peers(2) as (hanging, failing):
        send(hanging, 7)
        send(failing, 8)
        assert b"the instance did not come up" in read_frame(failing)
        assert not is_answered(hanging)
        assert b"the instance did not come up" in read_frame(hanging)


def test_a_peer_that_leaves_takes_nothing_along(gated):
    with peers(1) as (peer,):
        send(peer, 7)
        wait_until(lambda: "vpn 7: applied" in gated.log(), "the message is applied")
    gated.apply(message(8))

    open_gate()

    expect("192.168.7.10", "nas.vpn7.example")
    assert gated.status()["problems"] == []
    assert "did not come up" not in gated.log()


def test_an_agent_that_is_ended_answers_first(gated):
    with peers(1) as (peer,):
        send(peer, 7)
        wait_until(lambda: "vpn 7: applied" in gated.log(), "the message is applied")
        gated.agent.send_signal(signal.SIGTERM)
        assert not is_answered(peer, within=0.3)

        open_gate()

        assert result_of(read_frame(peer)) == 0
        assert gated.agent.wait(timeout=10) == 0
    expect("192.168.7.10", "nas.vpn7.example")

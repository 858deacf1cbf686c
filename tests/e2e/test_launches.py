"""Requests for a VPN whose instance is starting, and requests for the other VPNs meanwhile."""

import contextlib
import pathlib
import select
import signal
import subprocess
import time

import pytest

from box import (BUILD, DNSMASQ, STORE, connect, end, expect, instance_pid, instances, message, read_frame, run, vpn_config,
                 wait_until)
from load import Message, result_of

PROGRAM = "/usr/sbin/dnsmasq"
ASIDE = pathlib.Path("/run/aside/dnsmasq")
GATE = pathlib.Path("/run/gate")

# Replaces the program: for VPN 7 it waits until GATE exists, then runs dnsmasq or fails.
GATEKEEPER = f"""#!/bin/sh
case "$*" in *vpn_7.pid*)
    while ! [ -e {GATE} ]; do sleep 0.01; done
    [ "$(cat {GATE})" = fail ] && exit 1
esac
exec {ASIDE} "$@"
"""


@pytest.fixture
def gated(running):
    """A running agent; the instance of VPN 7 starts, or fails, when the test opens the gate."""
    ASIDE.parent.mkdir(exist_ok=True)
    ASIDE.touch()
    run("mount", "--bind", PROGRAM, ASIDE)
    gatekeeper = pathlib.Path("/run/gatekeeper")
    gatekeeper.write_text(GATEKEEPER)
    gatekeeper.chmod(0o755)
    run("mount", "--bind", gatekeeper, PROGRAM)
    yield running
    open_gate()
    wait_until(lambda: not gatekeepers(), "no instance waits at the gate")
    running.clean_up()
    run("umount", PROGRAM)
    run("umount", ASIDE)
    GATE.unlink(missing_ok=True)


def gatekeepers():
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
    """A vqctl that gets no answer for 0.3 s."""
    asking = subprocess.Popen([str(BUILD / "vqctl"), *words], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    with pytest.raises(subprocess.TimeoutExpired):
        asking.wait(timeout=0.3)
    return asking


def begin_launch(peer, agent):
    """Sends a message that starts the instance of VPN 7, and returns when it is applied: the instance hangs."""
    send(peer, 7)
    wait_until(lambda: "vpn 7: applied" in agent.log(), "the message is applied")


def assert_served(peer, vpn=8):
    """A message for another VPN is answered while the instance of VPN 7 hangs, which it does for 2 s."""
    started = time.monotonic()
    send(peer, vpn)
    assert is_answered(peer, within=1)
    assert result_of(read_frame(peer)) == 0
    assert instances(vpn) == [instance_pid(vpn)]
    assert time.monotonic() - started < 1
    assert gatekeepers(), "the instance of VPN 7 still hangs"


def test_another_vpn_is_served_while_an_instance_starts(gated):
    with peers(2) as (slow, other):
        send(slow, 7)
        assert_served(other)
        assert not is_answered(slow)

        open_gate()

        assert result_of(read_frame(slow)) == 0
    expect("192.168.7.10", "nas.vpn7.example")
    expect("192.168.8.10", "nas.vpn8.example", vpn=8)
    assert instances(7) == [instance_pid()]


def test_another_vpn_is_served_while_a_second_message_is_queued(gated):
    with peers(3) as (first, second, other):
        begin_launch(first, gated)
        send(second, 7)
        assert not is_answered(second, within=0.2)

        assert_served(other)

        open_gate()
        assert result_of(read_frame(first)) == 0
        assert result_of(read_frame(second)) == 0
    assert instances(7) == [instance_pid()]


def test_another_vpn_is_served_after_a_status_during_a_launch(gated):
    with peers(2) as (slow, other):
        begin_launch(slow, gated)
        asking = subprocess.Popen([str(BUILD / "vqctl"), "status"], stdout=subprocess.PIPE, stderr=subprocess.PIPE)

        assert_served(other)

        assert not is_answered(slow)
        assert "starting" in asking.communicate(timeout=1)[0].decode()
        open_gate()
        assert result_of(read_frame(slow)) == 0


def test_another_vpn_is_served_while_a_release_is_queued(gated):
    with peers(2) as (slow, other):
        begin_launch(slow, gated)
        asking = waiting_vqctl("vpn", "release", "7")

        assert_served(other)

        open_gate()
        assert b"the instance of vpn 7 is running" in asking.communicate(timeout=10)[0]
        assert asking.returncode == 1
        assert result_of(read_frame(slow)) == 0
    expect("192.168.7.10", "nas.vpn7.example")


def test_a_second_message_is_applied_after_the_launch(gated):
    """Before the pid file exists, it would start a second instance beside the first."""
    with peers(2) as (first, second):
        begin_launch(first, gated)
        send(second, 7, dnshosts=[{"domain": "nas.vpn7.example", "ip": "192.168.7.20"}])
        assert not is_answered(second, within=0.3)
        assert not is_answered(first)

        open_gate()

        assert result_of(read_frame(first)) == 0
        assert result_of(read_frame(second)) == 0
    expect("192.168.7.20", "nas.vpn7.example")
    assert instances(7) == [instance_pid()]


def test_queued_requests_are_handled_in_order(gated):
    with peers(4) as (first, *others):
        begin_launch(first, gated)
        for number, peer in enumerate(others, start=20):
            send(peer, 7, dnshosts=[{"domain": "nas.vpn7.example", "ip": f"192.168.7.{number}"}])
            assert not is_answered(peer, within=0.1)

        open_gate()

        assert [result_of(read_frame(peer)) for peer in others] == [0, 0, 0]
    expect("192.168.7.22", "nas.vpn7.example")
    assert instances(7) == [instance_pid()]


def test_a_full_queue_refuses_the_next_request(gated):
    with peers(18) as (first, *others):
        begin_launch(first, gated)
        for peer in others:
            send(peer, 7)
        (refused,) = wait_until(lambda: [peer for peer in others if is_answered(peer)], "one is refused")
        answer = read_frame(refused)
        assert result_of(answer) == -16 and b"16 requests are waiting for vpn 7 already" in answer

        open_gate()

        assert result_of(read_frame(first)) == 0
        assert [result_of(read_frame(peer)) for peer in others if peer is not refused] == [0] * 16


def test_requests_of_one_client_are_answered_in_order(gated):
    with peers(1) as (peer,):
        send(peer, 7)
        send(peer, 8)
        assert not is_answered(peer, within=0.3)

        open_gate()

        replies = [read_frame(peer) for _ in range(2)]
    assert [result_of(reply) for reply in replies] == [0, 0]
    log = gated.log()
    assert 0 < log.index("vpn 7: applied") < log.index("vpn 8: applied")


def test_status_tells_starting_without_waiting(gated):
    with peers(1) as (peer,):
        begin_launch(peer, gated)
        asked = gated.vqctl("status", "--vpn", "7")
        assert asked.returncode == 0 and "starting" in asked.stdout, asked.stdout
        assert not is_answered(peer)

        open_gate()

        assert result_of(read_frame(peer)) == 0
    asked = gated.vqctl("status", "--vpn", "7")
    assert asked.returncode == 0 and "running" in asked.stdout, asked.stdout


def test_a_failed_launch_is_reported_to_its_client_alone(gated):
    with peers(2) as (slow, other):
        send(slow, 7)
        open_gate("fail")
        send(other, 8)
        assert b"did not come up" not in read_frame(other)
        assert b"the instance did not come up" in read_frame(slow)
    assert instances(7) == []
    assert "vpn 7: the instance did not come up" in gated.log()


def test_a_hanging_launch_ends_after_its_timeout(gated):
    """One that has failed is reported at once: when no process of it is left."""
    (DNSMASQ / "vpn_8/dnsmasq.d/broken.conf").write_text("no-such-option\n")
    with peers(2) as (hanging, failing):
        send(hanging, 7)
        send(failing, 8)
        assert b"the instance did not come up" in read_frame(failing)
        assert not is_answered(hanging)
        assert b"the instance did not come up" in read_frame(hanging)


def test_a_client_that_disconnects_does_not_end_its_launch(gated):
    with peers(1) as (peer,):
        begin_launch(peer, gated)
    gated.apply(message(8))

    open_gate()

    expect("192.168.7.10", "nas.vpn7.example")
    assert gated.status()["problems"] == []
    assert "did not come up" not in gated.log()


def test_sigterm_ends_the_agent_during_a_launch(gated):
    """The client of the launch and the client of a queued request get an answer; the instance goes on starting."""
    with peers(2) as (first, second):
        begin_launch(first, gated)
        send(second, 7)
        assert not is_answered(second, within=0.2)
        started = time.monotonic()
        gated.agent.send_signal(signal.SIGTERM)

        assert gated.agent.wait(timeout=10) == 0
        assert time.monotonic() - started < 1
        answer = read_frame(first)
        assert result_of(answer) == 0 and b"the agent is stopping; the instance was still starting" in answer
        answer = read_frame(second)
        assert result_of(answer) == -125 and b"nothing was applied" in answer
    assert gatekeepers()

    open_gate()

    expect("192.168.7.10", "nas.vpn7.example")


def test_sigterm_ends_the_agent_during_the_recovery(gated):
    """The recovery waits up to 10 s for an instance that hangs."""
    assert gated.stop() == 0
    gated.configure(vpn_config(7), vpn_config(8), persistence=True, store=str(STORE))
    gated.start()
    open_gate()
    gated.apply(message(persistentflag=True))
    assert gated.stop() == 0
    end(instance_pid())
    GATE.unlink()
    gated.agent = gated.spawn()
    wait_until(gatekeepers, "the recovery starts the instance")
    started = time.monotonic()

    gated.agent.send_signal(signal.SIGTERM)

    assert gated.agent.wait(timeout=15) == 0
    assert time.monotonic() - started < 1
    assert "stopping; DNS instances keep running" in gated.log()
    gated.agent = None


def test_status_says_how_far_the_start_is(gated):
    assert gated.stop() == 0
    gated.configure(vpn_config(7), vpn_config(8), persistence=True, store=str(STORE))
    gated.start()
    open_gate()
    gated.apply(message(persistentflag=True))
    GATE.unlink()
    gated.cut_power()
    gated.agent = gated.spawn()
    wait_until(gatekeepers, "the start of the instance")

    starting = gated.vqctl("status")

    assert starting.returncode == 5
    assert starting.stdout.startswith("starting: 1 of 2 VPNs are back\n")
    assert gated.vqctl("status", "--json").returncode == 5
    open_gate()
    wait_until(lambda: gated.vqctl("status").returncode == 0, "the end of the start")


def test_the_next_agent_waits_for_an_instance_that_is_starting(gated):
    with peers(1) as (peer,):
        begin_launch(peer, gated)
        gated.agent.send_signal(signal.SIGTERM)
        assert gated.agent.wait(timeout=10) == 0
    gated.agent = gated.spawn()
    time.sleep(0.5)

    open_gate()

    wait_until(lambda: "serving" in gated.log().rpartition("stopping")[2], "the next agent serves")
    assert instances(7) == [instance_pid()]
    gated.apply(message(dnshosts=[{"domain": "nas.vpn7.example", "ip": "192.168.7.30"}]))
    expect("192.168.7.30", "nas.vpn7.example")
    assert instances(7) == [instance_pid()]

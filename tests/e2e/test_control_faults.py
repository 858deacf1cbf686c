"""Clients that disconnect early, send invalid data or open many connections: other clients are served, and the agent
releases all descriptors and memory of such clients."""

import contextlib
import os
import pathlib
import random

import pytest

from box import connect, frame, message, read_frame, wait_until

STATUS = frame(b"\x08\x03")
LIMIT = 16 * 1024 * 1024
SERVED_AT_ONCE = 64
SANITIZED = "KAVEL_SANITIZED" in os.environ  # a sanitizer keeps freed memory for a while


def descriptors(box):
    return len(os.listdir(f"/proc/{box.agent.pid}/fd"))


def memory_mib(box):
    lines = pathlib.Path(f"/proc/{box.agent.pid}/status").read_text().splitlines()
    (line,) = (line for line in lines if line.startswith("VmRSS:"))
    return int(line.split()[1]) / 1024


@pytest.fixture
def watched(running):
    """An agent that has handled an apply and a status. Afterwards its descriptors and memory must be as before."""
    running.apply(message())
    with connect() as peer:
        ask_status(peer)
    before, memory = descriptors(running), memory_mib(running)
    yield running
    wait_until(lambda: descriptors(running) <= before, f"at most {before} descriptors")
    assert memory_mib(running) < memory + 24 or SANITIZED


def ask_status(peer):
    peer.sendall(STATUS)
    assert read_frame(peer)


@contextlib.contextmanager
def crowd(count, first_bytes=b""):
    """Clients that connect one after the other, send `first_bytes`, and stay connected."""
    with contextlib.ExitStack() as stack:
        peers = []
        for _ in range(count):
            peers.append(stack.enter_context(connect()))
            with contextlib.suppress(ConnectionError):
                peers[-1].sendall(first_bytes)
        yield peers


def test_disconnect_within_a_frame(watched):
    with connect() as good:
        for size in range(200):
            with connect() as bad:
                bad.sendall((b"\x00\x00\x01\x00" + b"x" * 200)[:size])
            if size % 20 == 0:
                ask_status(good)


def test_disconnect_without_reading_the_answer(watched):
    with connect() as good:
        for _ in range(100):
            with connect() as bad:
                bad.sendall(STATUS)
        ask_status(good)


def test_stalled_clients_are_dropped(watched):
    """Each client announces a frame of the maximum size and sends 1,000 bytes of it. When they are dropped, the next
    client is served."""
    with connect() as good, crowd(SERVED_AT_ONCE - 1, LIMIT.to_bytes(4, "big") + b"x" * 1000) as bad:
        ask_status(good)
        assert memory_mib(watched) < 150, "an announced length allocates no memory"
        good.sendall(STATUS[:-1])
        watched.apply(message())
        for peer in [good, *bad]:
            assert read_frame(peer) is None
    assert watched.log().count("stalled; its connection is closed") == SERVED_AT_ONCE


def test_garbage_is_answered_with_an_error(watched):
    seed = int(os.environ.get("KAVEL_SEED", random.randrange(1 << 32)))
    print("KAVEL_SEED", seed)
    dice = random.Random(seed)
    with connect() as good:
        for _ in range(200):
            with connect() as bad:
                with contextlib.suppress(ConnectionError):
                    bad.sendall(frame(dice.randbytes(dice.randrange(300))) + dice.randbytes(dice.randrange(8)))
                    assert read_frame(bad), "no error answer"
            ask_status(good)


def test_frames_over_the_limit_are_refused(watched):
    """Twenty clients announce one byte more than the limit, and send all of it."""
    with connect() as good:
        for _ in range(20):
            with connect() as bad:
                with contextlib.suppress(ConnectionError):
                    bad.sendall((LIMIT + 1).to_bytes(4, "big") + b"\xff" * (LIMIT + 1))
                    answer = read_frame(bad)
                    assert answer and b"16777216" in answer
            ask_status(good)
    assert watched.log().count("announced a longer frame") == 20


def test_thousand_idle_connections_do_not_block_other_clients(watched):
    """Idle connections are closed to admit new ones. A client that was served before stays connected."""
    with connect() as good:
        ask_status(good)
        with crowd(1000) as bad:
            ask_status(good)
            watched.apply(message())
            assert descriptors(watched) < 2 * SERVED_AT_ONCE
            ask_status(bad[-1])
            ask_status(good)
        watched.apply(message())


def test_thousand_connections_with_a_request_are_all_answered(watched):
    with crowd(1000, frame(b"no request")) as peers:
        for peer in peers:
            assert read_frame(peer)

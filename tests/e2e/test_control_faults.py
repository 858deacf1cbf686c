"""Clients that break off, talk nonsense or come in crowds: the others are served, and nothing of them is left."""

import contextlib
import os
import pathlib
import random

import pytest

from box import connect, frame, message, read_frame, wait_until

STATUS = frame(b"\x08\x03")
LIMIT = 16 * 1024 * 1024
SERVED_AT_ONCE = 64
SANITIZED = "KAVEL_SANITIZED" in os.environ  # what it frees is kept for a while


def descriptors(box):
    return len(os.listdir(f"/proc/{box.agent.pid}/fd"))


def memory_mib(box):
    lines = pathlib.Path(f"/proc/{box.agent.pid}/status").read_text().splitlines()
    (line,) = (line for line in lines if line.startswith("VmRSS:"))
    return int(line.split()[1]) / 1024


@pytest.fixture
def watched(running):
    """An agent that has done everything once; when the clients are gone, so are their descriptors and their memory."""
    running.apply(message())
    with connect() as peer:
        ask_status(peer)
    before, memory = descriptors(running), memory_mib(running)
    yield running
    wait_until(lambda: descriptors(running) <= before, f"no more than {before} descriptors again")
    assert memory_mib(running) < memory + 24 or SANITIZED


def ask_status(peer):
    peer.sendall(STATUS)
    assert read_frame(peer)


@contextlib.contextmanager
def crowd(count, first_words=b""):
    """Clients that connect one after the other and then stay."""
    with contextlib.ExitStack() as stack:
        peers = []
        for _ in range(count):
            peers.append(stack.enter_context(connect()))
            with contextlib.suppress(ConnectionError):
                peers[-1].sendall(first_words)
        yield peers


def test_half_a_frame_and_gone(watched):
    with connect() as good:
        for size in range(200):
            with connect() as bad:
                bad.sendall((b"\x00\x00\x01\x00" + b"x" * 200)[:size])
            if size % 20 == 0:
                ask_status(good)


def test_gone_without_reading_the_answer(watched):
    with connect() as good:
        for _ in range(100):
            with connect() as bad:
                bad.sendall(STATUS)
        ask_status(good)


def test_half_a_frame_and_staying(watched):
    """Each announces as much as it may, and sends a little of it. Once they are dropped, the next is served."""
    with connect() as good, crowd(SERVED_AT_ONCE - 1, LIMIT.to_bytes(4, "big") + b"x" * 1000) as bad:
        ask_status(good)
        assert memory_mib(watched) < 150, "what is announced is worth no memory"
        good.sendall(STATUS[:-1])
        watched.apply(message())
        for peer in [good, *bad]:
            assert read_frame(peer) is None
    assert watched.log().count("stalled; its connection is closed") == SERVED_AT_ONCE


def test_garbage(watched):
    seed = int(os.environ.get("KAVEL_SEED", random.randrange(1 << 32)))
    print("KAVEL_SEED", seed)
    dice = random.Random(seed)
    with connect() as good:
        for _ in range(200):
            with connect() as bad:
                with contextlib.suppress(ConnectionError):
                    bad.sendall(frame(dice.randbytes(dice.randrange(300))) + dice.randbytes(dice.randrange(8)))
                    assert read_frame(bad), "an answer that says what is wrong"
            ask_status(good)


def test_frames_over_the_limit(watched):
    """Twenty that announce a byte too much, and send all of it."""
    with connect() as good:
        for _ in range(20):
            with connect() as bad:
                with contextlib.suppress(ConnectionError):
                    bad.sendall((LIMIT + 1).to_bytes(4, "big") + b"\xff" * (LIMIT + 1))
                    answer = read_frame(bad)
                    assert answer and b"16777216" in answer
            ask_status(good)
    assert watched.log().count("announced a longer frame") == 20


def test_a_thousand_connections_at_once(watched):
    """Those that say nothing give way to those that come after them; one that was served before is served on."""
    with connect() as good:
        ask_status(good)
        with crowd(1000) as bad:
            ask_status(good)
            watched.apply(message())
            assert descriptors(watched) < 2 * SERVED_AT_ONCE
            ask_status(bad[-1])
            ask_status(good)
        watched.apply(message())


def test_a_thousand_that_all_have_something_to_say(watched):
    with crowd(1000, frame(b"no request")) as peers:
        for peer in peers:
            assert read_frame(peer)

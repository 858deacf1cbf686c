"""Disks that are full, read-only or gone: one clear line says so, and what was in force or stored stays."""

import contextlib
import json
import shutil
import sqlite3
import subprocess
import sys

import pytest

from box import (DNSMASQ, STORE, ask, end, expect, instance_pid, instances, message, rows, run, vpn_config)

MANY = [{"domain": f"host{number}.example", "ip": "10.0.0.1"} for number in range(900)]
IN_FORCE = "; the message is in force all the same, and what was stored before is still stored"


def kept(vpn=7, address="192.168.7.10", **changes):
    return message(vpn, persistentflag=True,
                   **{"dnshosts": [{"domain": f"nas.vpn{vpn}.example", "ip": address}], **changes})


@contextlib.contextmanager
def disk(at, size):
    """A file system of its own at `at`."""
    at.mkdir(parents=True, exist_ok=True)
    run("mount", "-t", "tmpfs", "-o", f"mode=755,size={size}", "tmpfs", at)
    try:
        yield at
    finally:
        run("umount", "--lazy", at)


@contextlib.contextmanager
def filled(at):
    """While it lasts, not a byte is left on the disk."""
    filler = at / "filler"
    with filler.open("wb", buffering=0) as out, pytest.raises(OSError, match="No space left"):
        while True:
            out.write(b"x" * 4096)
    try:
        yield
    finally:
        filler.unlink()


@pytest.fixture
def small_etc(box):
    """The box's files on a disk of 256 KiB; the agent ready, and one message in force."""
    with disk(DNSMASQ.parent, "256k") as etc:
        shutil.rmtree(STORE.parent, ignore_errors=True)
        box.configure(vpn_config(7), vpn_config(8), persistence=True, store=str(STORE))
        box.start().apply(kept())
        expect("192.168.7.10", "nas.vpn7.example")
        yield etc
        box.clean_up()


@pytest.fixture
def small_store(box):
    """The store on a disk of 512 KiB; the agent ready, and two messages stored."""
    with disk(STORE.parent, "512k") as store:
        box.configure(vpn_config(7), vpn_config(8), persistence=True, store=str(STORE))
        box.start().apply(kept(7), kept(8, "192.168.8.10"))
        yield store
        box.clean_up()


def files_of_box():
    return {path: path.read_bytes() for path in DNSMASQ.rglob("*") if path.is_file()}


def stored_address(vpn=7):
    return json.loads(rows()[vpn])["DnsHost"][0]["Ip"]


def crash(box):
    """Agent and instances, as a power cut would end them."""
    box.agent.kill()
    box.agent.wait()
    for pid in instances():
        end(pid)


def crash_and_start(box):
    crash(box)
    box.start()


def test_no_room_for_the_files(box, small_etc):
    """The old files stand byte for byte, the instance answers on; with room the next message comes into force."""
    before, row, pid = files_of_box(), rows(), instance_pid()
    with filled(small_etc):
        for operation in ("reboot", "reload"):
            said = box.refused(kept(address="192.168.7.11", operation=operation))

            assert said == ("vpn 7: refused (-28 No space left on device): "
                            "Write to dnsmasq host failed(28:No space left on device)")
        assert files_of_box() == before
        assert rows() == row
        assert instances() == [pid]
        assert ask("nas.vpn7.example") == ["192.168.7.10"]

    box.apply(kept(address="192.168.7.11"))

    expect("192.168.7.11", "nas.vpn7.example")
    assert stored_address() == "192.168.7.11"


def test_an_agent_that_starts_without_room(box, small_etc):
    """Nothing can be written again: what runs goes on, and the log says why."""
    before, pid = files_of_box(), instance_pid()
    with filled(small_etc):
        box.agent.kill()
        box.agent.wait()
        box.start()

        assert files_of_box() == before
        assert instances() == [pid]
        assert ask("nas.vpn7.example") == ["192.168.7.10"]
        assert "Write to dnsmasq host failed(28:No space left on device)" in box.log()
        assert stored_address() == "192.168.7.10"

    box.apply(kept(address="192.168.7.12"))
    expect("192.168.7.12", "nas.vpn7.example")


def test_no_room_for_the_store(box, small_store):
    before = rows()
    with filled(small_store):
        said = box.refused(kept(dnshosts=MANY))

        assert said == ("vpn 7: refused (-28 No space left on device): "
                        f"Add advanced dns db failed(28:No space left on device){IN_FORCE}")
        expect("10.0.0.1", "host899.example")
        assert rows() == before

    crash_and_start(box)
    expect("192.168.7.10", "nas.vpn7.example")
    expect("192.168.8.10", "nas.vpn8.example", vpn=8)
    box.apply(kept(dnshosts=MANY))
    assert len(json.loads(rows()[7])["DnsHost"]) == len(MANY)


def test_recovery_without_room_for_the_store(box, small_store):
    """Reading it takes no room."""
    with filled(small_store):
        crash_and_start(box)

        expect("192.168.7.10", "nas.vpn7.example")
        expect("192.168.8.10", "nas.vpn8.example", vpn=8)
    assert box.status()["problems"] == []


def test_recovery_without_room_after_an_orderly_end(box, small_store):
    """Nor where the agent had closed the store."""
    assert box.stop() == 0
    for pid in instances():
        end(pid)
    with filled(small_store):
        box.start()

        expect("192.168.7.10", "nas.vpn7.example")
        expect("192.168.8.10", "nas.vpn8.example", vpn=8)
    box.apply(kept(address="192.168.7.19"))
    assert stored_address() == "192.168.7.19"


HOLD_THE_LOCK = """
import sqlite3, sys
store = sqlite3.connect(sys.argv[1])
store.execute("BEGIN EXCLUSIVE")
print("held", flush=True)
sys.stdin.read()
"""


def make_read_only(box, at):
    """Not while a descriptor may write there: the agent lets go of a store that failed it."""
    with subprocess.Popen([sys.executable, "-c", HOLD_THE_LOCK, STORE], stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE, text=True) as holder:
        assert holder.stdout.readline() == "held\n"
        box.refused(kept())
        holder.kill()  # an orderly end would tidy up the store
    run("mount", "-o", "remount,ro", at)


def test_a_store_that_becomes_read_only(box, small_store):
    make_read_only(box, small_store)

    said = box.refused(kept(address="192.168.7.13"))

    assert said == ("vpn 7: refused (-30 Read-only file system): "
                    f"Add advanced dns db failed(30:Read-only file system){IN_FORCE}")
    expect("192.168.7.13", "nas.vpn7.example")
    done = box.vqctl("apply", "-", input=json.dumps(message(8)))
    assert done.stdout == "vpn 8: applied\n"
    assert done.stderr == "vqctl: vpn 8: what was stored before is still stored, and comes back at the next start\n"
    run("mount", "-o", "remount,rw", small_store)
    assert stored_address() == "192.168.7.10"
    box.apply(kept(address="192.168.7.14"))
    assert stored_address() == "192.168.7.14"


@pytest.mark.parametrize("orderly", [True, False])
def test_recovery_from_a_read_only_store(box, small_store, orderly):
    if orderly:
        assert box.stop() == 0
        run("mount", "-o", "remount,ro", small_store)
        box.start()
    else:
        make_read_only(box, small_store)
    crash_and_start(box)

    expect("192.168.7.10", "nas.vpn7.example")
    expect("192.168.8.10", "nas.vpn8.example", vpn=8)
    assert box.status()["problems"] == []
    assert box.status()["stored"]
    run("mount", "-o", "remount,rw", small_store)
    box.apply(kept(address="192.168.7.20"))
    assert stored_address() == "192.168.7.20"


def test_a_store_that_is_removed(box, small_store):
    """The next message makes a new one; what only the old one held is gone, and the log and the status say so."""
    STORE.unlink()

    box.apply(kept(7, "192.168.7.15"))

    assert list(rows()) == [7]
    assert f"store {STORE} was removed or replaced: it is opened again" in box.log()
    assert not box.status(8)["stored"]
    crash_and_start(box)
    expect("192.168.7.15", "nas.vpn7.example")
    assert ask("nas.vpn8.example", vpn=8) == []
    box.apply(kept(8, "192.168.8.16"))
    assert sorted(rows()) == [7, 8]


@pytest.mark.parametrize("suffix", ["", "-wal", "-shm"])
def test_a_file_of_the_store_is_removed(box, small_store, suffix):
    STORE.with_name(STORE.name + suffix).unlink()
    box.apply(kept(7, "192.168.7.17"))
    box.apply(kept(8, "192.168.8.17"))
    crash_and_start(box)
    assert (stored_address(7), stored_address(8)) == ("192.168.7.17", "192.168.8.17")
    expect("192.168.7.17", "nas.vpn7.example")
    expect("192.168.8.17", "nas.vpn8.example", vpn=8)
    with sqlite3.connect(f"file:{STORE}?mode=ro", uri=True) as store:
        assert store.execute("PRAGMA integrity_check").fetchall() == [("ok",)]


def test_the_directory_of_the_store_is_removed(box):
    box.configure(vpn_config(7), persistence=True, store=str(STORE))
    box.start().apply(kept())
    shutil.rmtree(STORE.parent)

    box.apply(kept(address="192.168.7.18"))

    crash_and_start(box)
    expect("192.168.7.18", "nas.vpn7.example")

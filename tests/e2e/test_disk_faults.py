"""Disks that are full, read-only or removed: one line reports it, and what was applied or stored before is kept."""

import contextlib
import json
import shutil
import sqlite3
import subprocess
import sys

import pytest

from box import (DNSMASQ, STATE, STORE, ask, end, expect, instance_pid, instances, message, rows, run, vpn_config)

MANY = [{"domain": f"host{number}.example", "ip": "10.0.0.1"} for number in range(900)]
IN_FORCE = "; the message is in force all the same, and what was stored before is still stored"


def kept(vpn=7, address="192.168.7.10", **changes):
    return message(vpn, persistentflag=True,
                   **{"dnshosts": [{"domain": f"nas.vpn{vpn}.example", "ip": address}], **changes})


@contextlib.contextmanager
def disk(at, size):
    """A separate file system, mounted at `at`."""
    at.mkdir(parents=True, exist_ok=True)
    run("mount", "-t", "tmpfs", "-o", f"mode=755,size={size}", "tmpfs", at)
    try:
        yield at
    finally:
        run("umount", "--lazy", at)


@contextlib.contextmanager
def filled(at):
    """Fills the disk completely until the block ends."""
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
    """The configuration files are on a disk of 256 KiB. The agent is ready, and one message is applied."""
    with disk(DNSMASQ.parent, "256k") as etc:
        shutil.rmtree(STORE.parent, ignore_errors=True)
        box.configure(vpn_config(7), vpn_config(8), persistence=True, store=str(STORE))
        box.start().apply(kept())
        expect("192.168.7.10", "nas.vpn7.example")
        yield etc
        box.clean_up()


@pytest.fixture
def small_store(box):
    """The store is on a disk of 512 KiB. The agent is ready, and two messages are stored."""
    with disk(STORE.parent, "512k") as store:
        box.configure(vpn_config(7), vpn_config(8), persistence=True, store=str(STORE))
        box.start().apply(kept(7), kept(8, "192.168.8.10"))
        yield store
        box.clean_up()


def files_of_box():
    return {path: path.read_bytes() for path in DNSMASQ.rglob("*") if path.is_file()}


def stored_address(vpn=7):
    return json.loads(rows()[vpn])["DnsHost"][0]["Ip"]


def crash_and_start(box):
    box.cut_power()
    box.start()


def test_full_disk_keeps_files_row_and_instance(box, small_etc):
    """The old files are unchanged, the instance keeps answering. With free space, the next message is applied."""
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


def test_agent_starts_on_a_full_disk(box, small_etc):
    """No file can be written: the running instance is kept, and the log gives the reason."""
    before, pid = files_of_box(), instance_pid()
    with filled(small_etc):
        box.agent.kill()
        box.agent.wait()
        for kept_fact in STATE.glob("vpn_*.inforce"):  # as an older agent, which kept none: the row is applied
            kept_fact.unlink()
        box.start()

        assert files_of_box() == before
        assert instances() == [pid]
        assert ask("nas.vpn7.example") == ["192.168.7.10"]
        assert "Write to dnsmasq host failed(28:No space left on device)" in box.log()
        assert stored_address() == "192.168.7.10"

    box.apply(kept(address="192.168.7.12"))
    expect("192.168.7.12", "nas.vpn7.example")


def test_full_disk_keeps_the_stored_rows(box, small_store):
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


def test_recovery_with_a_full_store_disk(box, small_store):
    """Reading the store needs no free space."""
    with filled(small_store):
        crash_and_start(box)

        expect("192.168.7.10", "nas.vpn7.example")
        expect("192.168.8.10", "nas.vpn8.example", vpn=8)
    assert box.status()["problems"] == []


def test_recovery_with_a_full_store_disk_after_a_clean_stop(box, small_store):
    """Reading needs no free space either when the agent had closed the store."""
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
    """Remounts read-only. That needs all writable descriptors closed: the agent closes a store after an error."""
    with subprocess.Popen([sys.executable, "-c", HOLD_THE_LOCK, STORE], stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE, text=True) as holder:
        assert holder.stdout.readline() == "held\n"
        box.refused(kept())
        holder.kill()  # a clean exit would checkpoint the store
    run("mount", "-o", "remount,ro", at)


def test_store_becomes_read_only(box, small_store):
    make_read_only(box, small_store)

    said = box.refused(kept(address="192.168.7.13"))

    assert said == ("vpn 7: refused (-30 Read-only file system): "
                    f"Add advanced dns db failed(30:Read-only file system){IN_FORCE}")
    expect("192.168.7.13", "nas.vpn7.example")
    done = box.vqctl("apply", "-", input=json.dumps(message(8)))
    assert done.stdout == "standard input: vpn 8: applied\n"
    assert done.stderr == "vqctl: standard input: vpn 8: what was stored before is still stored, until the store works again\n"
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


def test_removed_store_is_created_again(box, small_store):
    """The next message creates a new store. The rows of the other VPNs are written again."""
    STORE.unlink()

    box.apply(kept(7, "192.168.7.15"))

    assert list(rows()) == [7]
    assert f"store {STORE} was removed or replaced: it is opened again" in box.log()
    assert not box.status(8)["stored"]
    assert box.vqctl("repair").stdout == "vpn 8: repaired: its stored row was gone\n"
    assert sorted(rows()) == [7, 8]
    crash_and_start(box)
    expect("192.168.7.15", "nas.vpn7.example")
    expect("192.168.8.10", "nas.vpn8.example", vpn=8)


@pytest.mark.parametrize("suffix", ["", "-wal", "-shm"])
def test_removed_file_of_the_store_is_created_again(box, small_store, suffix):
    STORE.with_name(STORE.name + suffix).unlink()
    box.apply(kept(7, "192.168.7.17"))
    box.apply(kept(8, "192.168.8.17"))
    crash_and_start(box)
    assert (stored_address(7), stored_address(8)) == ("192.168.7.17", "192.168.8.17")
    expect("192.168.7.17", "nas.vpn7.example")
    expect("192.168.8.17", "nas.vpn8.example", vpn=8)
    with sqlite3.connect(f"file:{STORE}?mode=ro", uri=True) as store:
        assert store.execute("PRAGMA integrity_check").fetchall() == [("ok",)]


def test_removed_directory_of_the_store_is_created_again(box):
    box.configure(vpn_config(7), persistence=True, store=str(STORE))
    box.start().apply(kept())
    shutil.rmtree(STORE.parent)

    box.apply(kept(address="192.168.7.18"))

    crash_and_start(box)
    expect("192.168.7.18", "nas.vpn7.example")

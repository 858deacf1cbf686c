"""Stored messages are recovered, however the agent ended."""

import concurrent.futures
import json
import os
import pathlib
import random
import shutil
import sqlite3
import subprocess
import time

import pytest

from box import (BUILD, DNSMASQ, STATE, STORE, ask, expect, instance_pid, instances, message, pid_file, routes, rows, run,
                 tables, vpn_config, wait_until)


@pytest.fixture
def keeping(box):
    """A box with persistence, its agent ready."""
    run("rm", "-rf", os.path.dirname(STORE))
    box.configure(vpn_config(7), vpn_config(8), persistence=True, store=str(STORE))
    return box.start()


def kept(vpn=7, **changes):
    return message(vpn, persistentflag=True, **changes)


def kill(box):
    """As a power cut; the disk is kept."""
    box.cut_power()
    run("ip", "-n", "vpn_7", "route", "flush", "table", "199", check=False)


def test_recovery_after_agent_and_instances_are_killed(keeping):
    keeping.apply(kept(7), kept(8))
    expect("192.168.7.10", "nas.vpn7.example")
    kill(keeping)
    assert ask("nas.vpn7.example") == []

    keeping.start()

    expect("192.168.7.10", "nas.vpn7.example")
    expect("192.168.8.10", "nas.vpn8.example", vpn=8)
    expect("192.168.7.10", "nas.vpn7.example", server="192.0.2.53")
    assert routes() == ["10.7.0.53"]
    assert keeping.status()["problems"] == []


def test_recovery_after_the_agent_alone_is_killed(keeping):
    """A running instance is restarted; there is no second one."""
    keeping.apply(kept())
    expect("192.168.7.10", "nas.vpn7.example")
    keeping.agent.kill()
    keeping.agent.wait()

    keeping.start()

    expect("192.168.7.10", "nas.vpn7.example")
    assert instances(7) == [instance_pid()]


def test_message_without_the_flag_deletes_the_row(keeping):
    keeping.apply(kept())
    assert json.loads(rows()[7])["DnsHost"] == [{"Ip": "192.168.7.10", "Domain": "nas.vpn7.example"}]

    keeping.apply(message())

    assert rows() == {}
    kill(keeping)
    keeping.start()
    assert instances() == []


def test_refused_message_keeps_the_row(keeping):
    keeping.apply(kept())
    before = rows()

    keeping.refused(kept(operation=7))
    keeping.refused(kept(dnshosts=[{"domain": "bad_name.example", "ip": "10.0.0.1"}]))

    assert rows() == before


def test_disabled_record_is_stored_and_recovered_as_disabled(keeping):
    keeping.apply(kept())
    off = kept(enable=False, dnshosts=None, dnsservers=None)
    keeping.apply(off)
    assert json.loads(rows()[7])["Enable"] is False
    shown = json.loads(keeping.vqctl("store", "show", "7").stdout)
    assert shown["Enable"] is False

    kill(keeping)
    keeping.start()

    assert instances() == []
    assert routes() == []
    assert (DNSMASQ / "vpn_7/hosts").read_text() == ""


def test_crash_between_launch_and_rule(keeping):
    """The stored record is disabled, an instance runs without a rule: its launch was not confirmed. It is stopped."""
    keeping.apply(kept(enable=False))
    off = rows()[7]
    keeping.apply(kept())
    keeping.agent.kill()
    keeping.agent.wait()
    (table,) = tables()
    run("ip", "netns", "exec", "vpn_7", "nft", "delete", "table", "inet", table)
    with sqlite3.connect(STORE) as store:
        store.execute("UPDATE cpe_dnsmasq SET conf = ? WHERE vpn_id = 7", (off,))
    (STATE / "vpn_7.inforce").unlink()  # an older agent keeps none

    keeping.start()

    assert instances() == []
    assert not pid_file().exists()
    assert keeping.status()["problems"] == []


@pytest.fixture
def slow_dnsmasq():
    """Every dnsmasq waits at its start until a line is written to the returned path."""
    gate, real = pathlib.Path("/run/gate"), pathlib.Path("/run/real/dnsmasq")
    real.parent.mkdir()
    shutil.copy("/usr/sbin/dnsmasq", real)
    os.mkfifo(gate)
    script = pathlib.Path("/run/dnsmasq")
    script.write_text(f'#!/bin/sh\nread _ < {gate}\nexec {real} "$@"\n')
    script.chmod(0o755)
    run("mount", "--bind", script, "/usr/sbin/dnsmasq")
    yield gate
    run("umount", "--lazy", "/usr/sbin/dnsmasq")
    gate.unlink()
    shutil.rmtree(real.parent)


def reached(gate):
    """The opened gate if a dnsmasq waits at it, else None."""
    try:
        return open(os.open(gate, os.O_WRONLY | os.O_NONBLOCK), "wb", buffering=0)
    except OSError:
        return None


def test_crash_right_after_the_launch(keeping, slow_dnsmasq):
    """The instance that a killed agent launched is still starting when the next agent starts. It is stopped."""
    keeping.apply(kept(enable=False))
    asking = subprocess.Popen([str(BUILD / "vqctl"), "apply", "-"], stdin=subprocess.PIPE, stderr=subprocess.PIPE,
                              text=True)
    with sqlite3.connect(STORE) as other:
        other.execute("BEGIN EXCLUSIVE")  # the message cannot be stored, and so is not confirmed
        asking.stdin.write(json.dumps(kept()))
        asking.stdin.close()
        gate = wait_until(lambda: reached(slow_dnsmasq), "the launch of the instance")
        keeping.agent.kill()
        keeping.agent.wait()
        other.rollback()
    assert asking.wait() == 3
    with gate:
        with concurrent.futures.ThreadPoolExecutor() as pool:
            starting = pool.submit(keeping.start)
            wait_until(lambda: keeping.log().count("module /") == 2, "the start of the next agent")
            gate.write(b"go\n")
            starting.result()

    assert json.loads(rows()[7])["Enable"] is False
    assert instances() == []
    assert keeping.status()["problems"] == []


def test_without_persistence_nothing_is_stored(box):
    run("rm", "-rf", os.path.dirname(STORE))
    box.configure(vpn_config(7), persistence=False, store=str(STORE))
    box.start().apply(kept())

    assert not os.path.exists(STORE)
    kill(box)
    box.start()
    assert instances() == []


def test_invalid_row_does_not_affect_the_others(keeping):
    keeping.apply(kept(7), kept(8))
    kill(keeping)
    with sqlite3.connect(STORE) as store:
        store.execute("UPDATE cpe_dnsmasq SET conf = '{\"Enable\": tru' WHERE vpn_id = 7")

    keeping.start()

    expect("192.168.8.10", "nas.vpn8.example", vpn=8)
    assert instances(7) == []
    assert "vpn 7" in "".join(line for line in keeping.log().splitlines() if line.startswith("ERROR"))
    assert rows()[7] == '{"Enable": tru', "an invalid row is kept, so that it can be repaired"


def test_store_that_is_no_database_is_not_overwritten(box):
    run("rm", "-rf", os.path.dirname(STORE))
    os.makedirs(os.path.dirname(STORE), exist_ok=True)
    with open(STORE, "wb") as garbage:
        garbage.write(b"no database at all" * 100)
    box.configure(vpn_config(7), persistence=True, store=str(STORE))
    box.start()

    said = box.refused(kept())

    assert said.startswith("vpn 7: refused (-5 Input/output error)"), said
    expect("192.168.7.10", "nas.vpn7.example")
    assert open(STORE, "rb").read().startswith(b"no database at all"), "the file was overwritten"
    os.unlink(STORE)


def test_locked_store_refuses_the_message(keeping):
    keeping.apply(kept())
    before = rows()
    with sqlite3.connect(STORE) as other:
        other.execute("BEGIN EXCLUSIVE")
        said = keeping.refused(kept(dnshosts=None))
        other.rollback()

    assert said.startswith("vpn 7: refused (-16 Device or resource busy)"), said
    assert rows() == before
    keeping.apply(kept(dnshosts=None))


def test_store_list_and_show(keeping):
    keeping.apply(kept(7), kept(8))
    listed = keeping.vqctl("store", "list").stdout.splitlines()
    assert [line.split()[0] for line in listed[1:]] == ["7", "8"]
    missing = keeping.vqctl("store", "show", "99")
    assert missing.returncode == 2


# Exit statuses of vqctl. A reload with no instance is in force, and reported with 4.
CONFIRMED = (0, 4)


def apply_until(box, stop_at, addresses, dice):
    """Applies messages until `stop_at`, then kills the agent during the last one. Returns the last confirmed address,
    if any, and the address of the message that was interrupted."""
    confirmed = None
    while True:
        address = next(addresses)
        words = kept(dnshosts=[{"domain": "nas.vpn7.example", "ip": address}],
                     operation=dice.choice(["reload", "reboot"]))
        asking = subprocess.Popen([str(BUILD / "vqctl"), "apply", "-"], stdin=subprocess.PIPE,
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        asking.stdin.write(json.dumps(words))
        asking.stdin.close()
        try:
            asking.wait(timeout=max(0.0, stop_at - time.monotonic()))
        except subprocess.TimeoutExpired:
            box.agent.kill()
            box.agent.wait()
            return (address, None) if asking.wait() in CONFIRMED else (confirmed, address)
        if asking.returncode in CONFIRMED:
            confirmed = address


def test_agent_killed_at_random_moments(keeping):
    """A hundred agents are killed during applies. Each start recovers exactly the last confirmed message, or the one
    that was stored but not yet confirmed: no partial file, no second instance, no lost row."""
    seed = random.randrange(1 << 32)
    print("seed", seed)
    dice = random.Random(seed)
    addresses = (f"192.168.{third}.{fourth}" for third in range(256) for fourth in range(1, 255))
    recovered = None
    for _ in range(100):
        confirmed, interrupted = apply_until(keeping, time.monotonic() + dice.uniform(0.0, 0.1), addresses, dice)

        keeping.start()

        row = rows().get(7)
        stored = row and json.loads(row)["DnsHost"][0]["Ip"]
        assert stored in {confirmed or recovered, interrupted}
        recovered = stored
        assert not list(DNSMASQ.rglob(".*")), "partial files"
        if stored is None:
            continue
        assert (DNSMASQ / "vpn_7/hosts").read_text() == f"{stored} nas.vpn7.example\n"
        wait_until(lambda: pid_file().exists() and instances(7) == [instance_pid()], "one instance")
    expect(recovered, "nas.vpn7.example")

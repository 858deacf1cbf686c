"""Fifty VPNs, four controllers at once, instances and agents killed meanwhile: what was confirmed last runs."""

import concurrent.futures
import contextlib
import json
import os
import random
import signal
import sqlite3
import threading
import time

import pytest

from box import (DNSMASQ, STORE, ask, end, expect, instance_pid, instances, pid_file, routes, rows, run, tables,
                 vpn_config, wait_until)
from load import Controller, Message, content, lines_of, surround

VPNS = range(101, 151)  # none of these numbers begins another
CONTROLLERS = 4
MESSAGES = int(os.environ.get("KAVEL_LOAD_MESSAGES", "2000"))
SECONDS = 120  # for the messages; on a box that is slower than that, fewer are sent


@pytest.fixture(scope="module")
def seed():
    return int(os.environ.get("KAVEL_SEED", random.randrange(1 << 32)))


@pytest.fixture
def crowd(box):
    """Fifty configured VPNs, the agent ready."""
    with concurrent.futures.ThreadPoolExecutor(CONTROLLERS) as pool:
        list(pool.map(surround, VPNS))
    run("rm", "-rf", STORE.parent)
    box.configure(*(vpn_config(vpn) for vpn in VPNS), persistence=True, store=str(STORE), log="warning")
    return box.start()


def messages_for(vpn, dice):
    def make(number, kind, kept=True):
        return Message(vpn, operation="reload" if kind == "reload" else "reboot", enable=kind != "off",
                       persistentflag=kept, **content(vpn, number, dice))

    return {
        "reboot": [make(1, "reboot"), make(2, "reboot"), make(3, "reboot"), make(4, "reboot", kept=False)],
        "reload": [make(5, "reload"), make(6, "reload"), make(7, "reload")],
        "off": [make(8, "off")],
    }


def controllers_of(dice):
    """They share no VPN, so that each knows the order in which its messages were carried out."""
    packs = {vpn: random.Random(dice.random()) for vpn in VPNS}
    with concurrent.futures.ThreadPoolExecutor(CONTROLLERS) as pool:
        made = dict(zip(VPNS, pool.map(lambda vpn: messages_for(vpn, packs[vpn]), VPNS)))
    return [Controller({vpn: made[vpn] for vpn in VPNS[first::CONTROLLERS]}, random.Random(dice.random()))
            for first in range(CONTROLLERS)]


def kill_instances(over, dice):
    """Ends instances behind the agent's back until told that it is over; how many."""
    killed = 0
    while not over.wait(dice.uniform(0.0, 1.0)):
        running = sorted(instances())
        with contextlib.suppress(IndexError, ProcessLookupError):
            os.kill(dice.choice(running), dice.choice([signal.SIGKILL, signal.SIGTERM]))
            killed += 1
    return killed


def kill_agents(box, sending, dice):
    """Kills the agent every few seconds until all messages are sent, now and then while it recovers; how often."""
    killed = 0
    while concurrent.futures.wait(sending, timeout=dice.uniform(2.0, 6.0)).not_done:
        box.agent.kill()
        box.agent.wait()
        killed += 1
        if dice.random() < 0.25:
            recovering = box.spawn()
            concurrent.futures.wait(sending, timeout=dice.uniform(0.0, 1.0))
            recovering.kill()
            recovering.wait()
            killed += 1
        box.start()
    return killed


def load(box, controllers, dice):
    """Returns the seconds that the messages took, and how many instances and agents were killed meanwhile."""
    over = threading.Event()
    began = time.monotonic()
    with concurrent.futures.ThreadPoolExecutor(CONTROLLERS + 1) as pool:
        killing = pool.submit(kill_instances, over, random.Random(dice.random()))
        sending = [pool.submit(one.run, MESSAGES // CONTROLLERS, began + SECONDS) for one in controllers]
        try:
            agents = kill_agents(box, sending, dice)
            took = time.monotonic() - began
        finally:
            over.set()
        for one in sending:
            one.result()
        return took, killing.result(), agents


def status_of_all(box):
    return {row["vpn"]: row for row in json.loads(box.vqctl("status", "--json").stdout)}


def check_status_tells_the_dead(box, books):
    """Every instance that is meant to run and does not is told; nothing is said against the others."""
    def wrong():
        status, alive = status_of_all(box), {vpn: bool(instances(vpn)) for vpn in books}
        return [(vpn, status[vpn]["problems"]) for vpn, book in books.items()
                if book.is_settled() and bool(status[vpn]["problems"]) != (book.runs() and not alive[vpn])]

    wait_until(lambda: not wrong(), f"a status that is right: {wrong()}")


def check_in_force(vpn, one):
    """Files, routes, rule and instance are exactly those of a message."""
    assert lines_of(vpn) == one.files()
    assert routes(vpn) == one.routes()
    assert tables(vpn) == ([f"kavel_dns_0_{vpn + 2}"] if one.enables else [])
    assert instances(vpn) == ([instance_pid(vpn)] if one.enables else [])
    assert one.enables == pid_file(vpn).exists()


def check_answers(vpn, one):
    host = one.fields["dnshosts"][-1]
    if not one.enables:
        assert ask(host["domain"], vpn=vpn) == []
        return
    expect(host["ip"], host["domain"], vpn=vpn)
    for mx in one.fields["dnsmxhost"]:
        expect(f"{mx['preference']} {mx['targetdomain']}.", mx["sourcedomain"], "MX", vpn=vpn)


def stored():
    """The rows, as far as messages say what stands in them."""
    told = ("Enable", "VpnId", "DnsHost", "DnsMxHost", "DnsServer", "DnsProxy")
    return {vpn: {key: record[key] for key in told}
            for vpn, record in ((vpn, json.loads(text)) for vpn, text in rows().items())}


def check_recovered(books):
    """A confirmed message is in force; after an unanswered one that, or the one before. Returns the VPNs in doubt."""
    found = stored()
    doubtful = []
    for vpn, book in books.items():
        row = found.get(vpn)
        possible = [one for one in [book.confirmed, *book.unanswered] if one is not None]
        assert row in [one.row() for one in possible] + [None] * (book.confirmed is None)
        if row is not None:
            check_in_force(vpn, next(one for one in possible if one.row() == row))
        if not book.is_settled() or row is None and book.confirmed.enables:
            doubtful.append(vpn)
    return doubtful


def check_nothing_is_left_over(books):
    wanted = sorted(instance_pid(vpn) for vpn, book in books.items() if book.confirmed.enables)
    assert sorted(instances()) == wanted, "orphans"
    assert list(DNSMASQ.rglob(".*")) == []
    assert {path.name for path in STORE.parent.iterdir()} <= {"agent.db", "agent.db-wal", "agent.db-shm"}
    with sqlite3.connect(f"file:{STORE}?mode=ro", uri=True) as store:
        assert store.execute("PRAGMA integrity_check").fetchall() == [("ok",)]


def test_what_was_confirmed_last_runs(crowd, seed, capsys):
    dice = random.Random(seed)
    print("KAVEL_SEED", seed)
    controllers = controllers_of(dice)
    books = {vpn: book for one in controllers for vpn, book in one.books.items()}

    took, killed, agents = load(crowd, controllers, dice)

    total = {what: sum(getattr(one, what) for one in controllers) for what in ("sent", "confirmed", "refused", "lost")}
    for pid in instances()[:3]:
        end(pid)
    check_status_tells_the_dead(crowd, books)

    crowd.agent.kill()
    crowd.agent.wait()
    began = time.monotonic()
    crowd.start()
    recovery = time.monotonic() - began
    doubtful = check_recovered(books)
    for one in controllers:
        for vpn in sorted(set(doubtful) & set(one.books)):
            one.settle(vpn)
        one.close()

    for vpn, book in books.items():
        check_in_force(vpn, book.confirmed)
        check_answers(vpn, book.confirmed)
    assert stored() == {vpn: book.confirmed.row() for vpn, book in books.items() if book.confirmed.kept}
    check_nothing_is_left_over(books)
    assert crowd.vqctl("status").returncode == 0
    with capsys.disabled():
        print(f"\nload: seed {seed}, {len(VPNS)} VPNs, {CONTROLLERS} controllers, {total} in {took:.1f} s, "
              f"{total['confirmed'] / took:.0f} confirmed/s; killed {killed} instances, {agents} agents; "
              f"last recovery of {len(rows())} rows {recovery:.2f} s; {len(doubtful)} settled in the end")

"""Fifty VPNs, four concurrent controllers; instances and agents are killed meanwhile. The last confirmed message of
each VPN must be in force."""

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

VPNS = range(101, 151)  # no number is the prefix of another
CONTROLLERS = 4
MESSAGES = int(os.environ.get("KAVEL_LOAD_MESSAGES", "2000"))
SECONDS = 120  # time limit for sending; a slow box sends fewer messages


@pytest.fixture(scope="module")
def seed():
    return int(os.environ.get("KAVEL_SEED", random.randrange(1 << 32)))


@pytest.fixture
def crowd(box):
    """A box with fifty configured VPNs, the agent ready."""
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
    """Controllers share no VPN, so that each one knows the order in which its messages were executed."""
    packs = {vpn: random.Random(dice.random()) for vpn in VPNS}
    with concurrent.futures.ThreadPoolExecutor(CONTROLLERS) as pool:
        made = dict(zip(VPNS, pool.map(lambda vpn: messages_for(vpn, packs[vpn]), VPNS)))
    return [Controller({vpn: made[vpn] for vpn in VPNS[first::CONTROLLERS]}, random.Random(dice.random()))
            for first in range(CONTROLLERS)]


def kill_instances(over, dice):
    """Kills random instances until `over` is set. Returns their number."""
    killed = 0
    while not over.wait(dice.uniform(0.0, 1.0)):
        running = sorted(instances())
        with contextlib.suppress(IndexError, ProcessLookupError):
            os.kill(dice.choice(running), dice.choice([signal.SIGKILL, signal.SIGTERM]))
            killed += 1
    return killed


def kill_agents(box, sending, dice):
    """Kills the agent every few seconds until all messages are sent, sometimes during recovery. Returns how often."""
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
    """Returns the duration in seconds, and how many instances and agents were killed meanwhile."""
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
    return {row["vpn"]: row for row in json.loads(box.vqctl("status", "--json").stdout)["vpns"]}


def check_status_reports_dead_instances(box, histories):
    """Status reports a problem for exactly those instances that should run and do not. A change that waits for a restart
    is no such problem."""
    def wrong():
        status, alive = status_of_all(box), {vpn: bool(instances(vpn)) for vpn in histories}
        told = {vpn: [problem for problem in status[vpn]["problems"] if problem["code"] != "restart-pending"]
                for vpn in histories}
        return [(vpn, told[vpn]) for vpn, history in histories.items()
                if history.is_known() and bool(told[vpn]) != (history.runs() and not alive[vpn])]

    wait_until(lambda: not wrong(), f"a correct status: {wrong()}")


def check_in_force(vpn, one):
    """Files, routes, rule and instance are exactly as message `one` requires."""
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
    """The stored rows, reduced to the members that a message determines."""
    told = ("Enable", "VpnId", "DnsHost", "DnsMxHost", "DnsServer", "DnsProxy")
    return {vpn: {key: record[key] for key in told}
            for vpn, record in ((vpn, json.loads(text)) for vpn, text in rows().items())}


def check_recovered(histories):
    """The confirmed message is in force, or a later one that got no answer. Returns the VPNs whose state is unknown."""
    found = stored()
    unknown = []
    for vpn, history in histories.items():
        row = found.get(vpn)
        possible = [one for one in [history.confirmed, *history.unanswered] if one is not None]
        assert row in [one.row() for one in possible] + [None] * (history.confirmed is None)
        if row is not None:
            check_in_force(vpn, next(one for one in possible if one.row() == row))
        if not history.is_known() or row is None and history.confirmed.enables:
            unknown.append(vpn)
    return unknown


def check_nothing_is_left_over(histories):
    wanted = sorted(instance_pid(vpn) for vpn, history in histories.items() if history.confirmed.enables)
    assert sorted(instances()) == wanted, "orphans"
    assert list(DNSMASQ.rglob(".*")) == []
    assert {path.name for path in STORE.parent.iterdir()} <= {"agent.db", "agent.db-wal", "agent.db-shm"}
    with sqlite3.connect(f"file:{STORE}?mode=ro", uri=True) as store:
        assert store.execute("PRAGMA integrity_check").fetchall() == [("ok",)]


def test_last_confirmed_message_is_in_force(crowd, seed, capsys):
    dice = random.Random(seed)
    print("KAVEL_SEED", seed)
    controllers = controllers_of(dice)
    histories = {vpn: history for one in controllers for vpn, history in one.histories.items()}

    took, killed, agents = load(crowd, controllers, dice)

    total = {what: sum(getattr(one, what) for one in controllers) for what in ("sent", "confirmed", "refused", "lost")}
    for pid in instances()[:3]:
        end(pid)
    check_status_reports_dead_instances(crowd, histories)

    crowd.cut_power()
    began = time.monotonic()
    crowd.start()
    recovery = time.monotonic() - began
    unknown = check_recovered(histories)
    for one in controllers:
        for vpn in sorted(set(unknown) & set(one.histories)):
            one.restart_until_confirmed(vpn)
        one.close()

    for vpn, history in histories.items():
        check_in_force(vpn, history.confirmed)
        check_answers(vpn, history.confirmed)
    assert stored() == {vpn: history.confirmed.row() for vpn, history in histories.items() if history.confirmed.kept}
    check_nothing_is_left_over(histories)
    assert crowd.vqctl("status").returncode == 0
    with capsys.disabled():
        print(f"\nload: seed {seed}, {len(VPNS)} VPNs, {CONTROLLERS} controllers, {total} in {took:.1f} s, "
              f"{total['confirmed'] / took:.0f} confirmed/s; killed {killed} instances, {agents} agents; "
              f"last recovery of {len(rows())} rows {recovery:.2f} s; {len(unknown)} restarted in the end")

"""Thirty VPNs under random faults, for KAVEL_SOAK_SECONDS seconds. In the end every VPN runs what was confirmed last,
without a person: nothing is sent and nothing is repaired by hand after the last fault."""

import collections
import concurrent.futures
import contextlib
import json
import os
import random
import shutil
import signal
import sqlite3
import threading
import time

import pytest

from box import DNSMASQ, STORE, ask, instances, pid_file, rows, run, vpn_config
from faults import Client, configure
from load import Controller, Message, content, surround
from test_load import check_in_force, stored

SECONDS = int(os.environ.get("KAVEL_SOAK_SECONDS", "20"))
VPNS = range(201, 231)  # no number is the prefix of another
ASKED = VPNS[:6]  # their one message stays in force: how long their clients get no answer is measured
CONTROLLERS = 2
LONGEST_RETURN = 90  # seconds after the last fault


@pytest.fixture(scope="module")
def seed():
    return int(os.environ.get("KAVEL_SEED", random.randrange(1 << 32)))


@pytest.fixture
def crowd(box):
    """A box with thirty configured VPNs and default intervals, the agent ready."""
    with concurrent.futures.ThreadPoolExecutor(4) as pool:
        list(pool.map(surround, VPNS))
    shutil.rmtree(STORE.parent, ignore_errors=True)
    configure(box, *(vpn_config(vpn) for vpn in VPNS), log="notice")
    return box.start()


class Sender(Controller):
    """A controller with pauses. The box is broken: it may refuse a message, which is not repeated."""

    def __init__(self, messages, dice):
        super().__init__(messages, dice)
        self.over = threading.Event()

    def check_refusal(self, one, result):
        pass  # the box is broken

    def send_first_messages(self):
        for vpn in sorted(self.histories):
            assert self.send(self.messages[vpn]["reboot"][0]) == 0

    def send_until_over(self):
        while not self.over.wait(self.dice.uniform(0.1, 0.5)):
            vpn = self.dice.choice([vpn for vpn in self.histories if vpn not in ASKED])
            self.send(self.choose(vpn))
        self.close()


def messages_for(vpn, dice):
    def make(number, kind):
        return Message(vpn, operation="reload" if kind == "reload" else "reboot", enable=kind != "off",
                       persistentflag=True, **content(vpn, number, dice))

    return {"reboot": [make(1, "reboot"), make(2, "reboot")], "reload": [make(3, "reload")], "off": [make(4, "off")]}


def senders_of(dice):
    with concurrent.futures.ThreadPoolExecutor(4) as pool:
        made = dict(zip(VPNS, pool.map(lambda vpn: messages_for(vpn, random.Random(f"{dice.random()}{vpn}")), VPNS)))
    return [Sender({vpn: made[vpn] for vpn in VPNS[first::CONTROLLERS]}, random.Random(dice.random()))
            for first in range(CONTROLLERS)]


class Faults:
    """Breaks a random thing of a random VPN, again and again."""

    def __init__(self, dice):
        self.dice = dice
        self.made = collections.Counter()
        self.kinds = {"instance killed": self.kill, "rule flushed": self.flush_rules,
                      "routes flushed": self.flush_routes, "policy rule deleted": self.delete_policy,
                      "link flapped": self.flap, "pid file lost": self.lose, "pid file emptied": self.empty,
                      "file edited": self.edit, "file removed": self.remove, "file unreadable": self.close,
                      "directory removed": self.remove_directory, "store removed": self.remove_store,
                      "instance stopped": self.stop}

    def run(self, over):
        while not over.wait(self.dice.uniform(0.05, 0.4)):
            name, vpn = self.dice.choice(sorted(self.kinds)), self.dice.choice(VPNS)
            with contextlib.suppress(OSError):  # it is gone already
                self.kinds[name](vpn)
                self.made[name] += 1

    def kill(self, vpn):
        for pid in instances(vpn):
            os.kill(pid, self.dice.choice([signal.SIGKILL, signal.SIGTERM]))

    @staticmethod
    def flush_rules(vpn):
        run("ip", "netns", "exec", f"vpn_{vpn}", "nft", "flush", "ruleset")

    @staticmethod
    def flush_routes(vpn):
        run("ip", "-n", f"vpn_{vpn}", "route", "flush", "table", "199", check=False)

    @staticmethod
    def delete_policy(vpn):
        run("ip", "-n", f"vpn_{vpn}", "rule", "delete", "table", "199", check=False)

    def flap(self, vpn):
        link = self.dice.choice(["lan0", "lan1", "wan0", "lo"])
        run("ip", "-n", f"vpn_{vpn}", "link", "set", link, "down")
        time.sleep(self.dice.choice([0, 0.5]))
        run("ip", "-n", f"vpn_{vpn}", "link", "set", link, "up")

    @staticmethod
    def lose(vpn):
        pid_file(vpn).unlink()

    @staticmethod
    def empty(vpn):
        with pid_file(vpn).open("r+", encoding="ascii") as file:
            file.truncate()

    def a_file(self, vpn):
        return DNSMASQ / f"vpn_{vpn}" / self.dice.choice(["hosts", "resolv.conf", "dnsmasq.d/DnsProxy.conf"])

    def edit(self, vpn):
        self.a_file(vpn).write_text("# nothing\n", encoding="ascii")

    def remove(self, vpn):
        self.a_file(vpn).unlink()

    def close(self, vpn):
        self.a_file(vpn).chmod(0o600)

    @staticmethod
    def remove_directory(vpn):
        shutil.rmtree(DNSMASQ / f"vpn_{vpn}")

    @staticmethod
    def remove_store(_):
        for path in STORE.parent.glob("agent.db*"):
            path.unlink()

    @staticmethod
    def stop(vpn):
        """Queries find it after half a minute: not where the time without DNS is measured."""
        if vpn not in ASKED:
            for pid in instances(vpn):
                os.kill(pid, signal.SIGSTOP)


def kill_agents(box, over, dice):
    """Kills the agent every few seconds, sometimes during its start. Returns how often."""
    killed = 0
    while not over.wait(dice.uniform(5.0, 15.0)):
        for _ in range(dice.choice([1, 1, 1, 2])):
            box.agent.kill()
            box.agent.wait()
            killed += 1
            box.agent = box.spawn()
            over.wait(dice.uniform(0.0, 1.0))
    return killed


def check_right(vpn, histories):
    """The confirmed message is in force, or a later one that got no answer: all of it is of the same message."""
    history = histories[vpn]
    row = stored()[vpn]
    possible = [one for one in [history.confirmed, *history.unanswered] if one.row() == row]
    assert possible, f"vpn {vpn}: the row is that of another message"
    one = possible[0]
    check_in_force(vpn, one)
    host = one.fields["dnshosts"][-1]
    assert ask(host["domain"], vpn=vpn, server="192.0.2.53") == ([host["ip"]] if one.enables else [])
    assert "199" in run("ip", "-n", f"vpn_{vpn}", "rule", "show").stdout


def wait_until_all_is_right(histories, began):
    """Returns the seconds since `began`."""
    waiting, problem = set(histories), None
    while waiting:
        for vpn in sorted(waiting):
            try:
                check_right(vpn, histories)
                waiting.discard(vpn)
            except (AssertionError, OSError, KeyError, ValueError, sqlite3.OperationalError) as failure:
                problem = failure
        if waiting and time.monotonic() - began > LONGEST_RETURN:
            raise AssertionError(f"vpns {sorted(waiting)} are not right after {LONGEST_RETURN} s") from problem
        time.sleep(0.2)
    return time.monotonic() - began


def soak(box, senders, faults, dice):
    """Returns how many agents were killed, the clients, and when the last fault was over."""
    over = threading.Event()
    with contextlib.ExitStack() as stack:
        pool = stack.enter_context(concurrent.futures.ThreadPoolExecutor(CONTROLLERS + 2))
        clients = [stack.enter_context(Client(vpn, f"host0.vpn{vpn}.example", interval=0.1, timeout=0.3))
                   for vpn in ASKED]
        running = [pool.submit(one.send_until_over) for one in senders]
        running.append(pool.submit(faults.run, over))
        killing = pool.submit(kill_agents, box, over, random.Random(dice.random()))
        try:
            concurrent.futures.wait([*running, killing], timeout=SECONDS,
                                    return_when=concurrent.futures.FIRST_EXCEPTION)
        finally:
            over.set()
            for one in senders:
                one.over.set()
        for each in running:
            each.result()
        return killing.result(), clients, time.monotonic()


def repairs_told(box):
    text = box.log()
    return {what: text.count(f": {what}")
            for what in ("repaired", "starting its instance", "its instance does not run")}


def test_every_vpn_runs_what_was_confirmed_last_after_random_faults(crowd, seed, capsys):
    dice = random.Random(seed)
    print("KAVEL_SEED", seed)
    senders = senders_of(dice)
    histories = {vpn: history for one in senders for vpn, history in one.histories.items()}
    for one in senders:
        one.send_first_messages()
    faults = Faults(random.Random(dice.random()))

    agents, clients, ended = soak(crowd, senders, faults, dice)
    took = wait_until_all_is_right(histories, ended)

    time.sleep(1)
    for vpn in histories:
        check_right(vpn, histories)  # it stays so
    assert len(instances()) == sum(json.loads(text)["Enable"] for text in rows().values()), "orphans"
    longest = max(clients, key=lambda client: client.longest)
    total = {what: sum(getattr(one, what) for one in senders) for what in ("sent", "confirmed", "refused", "lost")}
    with capsys.disabled():
        print(f"\nsoak: seed {seed}, {SECONDS} s, {len(VPNS)} VPNs; faults {dict(faults.made)}, "
              f"agents killed {agents}; messages {total}; told {repairs_told(crowd)}; "
              f"all right {took:.1f} s after the last fault; "
              f"longest time without DNS {longest.longest:.1f} s (VPN {longest.vpn})")

"""Broker, link and agent are killed at random while messages are published: in the end every VPN has its newest message,
no message was applied twice, and every report was true."""

import collections
import json
import os
import random
import re
import shutil
import sqlite3
import threading

import pytest

from box import STATE, STORE, ask, message, vpn_config
from fleet_world import BOX, Fleet, for_link, packed
from load import surround
from waiting import wait_until

VPNS = range(201, 207)  # no number is the prefix of another
REVISIONS = 500
KILLS = 100
REFUSED_IN = 12  # one message in so many is refused
SETTLED_WITHIN = 90  # seconds after the last kill

Entry = collections.namedtuple("Entry", "revision result")


@pytest.fixture(scope="module")
def seed():
    return int(os.environ.get("KAVEL_SEED", random.randrange(1 << 32)))


@pytest.fixture
def fleet():
    world = Fleet()
    yield world.start()
    world.clean_up()


@pytest.fixture
def box(box):
    for vpn in VPNS:
        surround(vpn)
    shutil.rmtree(STORE.parent, ignore_errors=True)
    box.configure(*(vpn_config(vpn) for vpn in VPNS), **for_link(store=str(STORE), log="notice"))
    box.start()
    return box


def address(revision):
    return f"10.9.{revision >> 8}.{revision & 255}"


def mark(vpn, revision):
    """A forward that the agent notes in its log each time that it has handed the message to the module."""
    return f"mark-{vpn}-{revision}_."


def content(vpn, revision, is_refused):
    hosts = [{"domain": f"nas.vpn{vpn}.example", "ip": address(revision)}]
    if is_refused:
        hosts.append({"domain": "bad_name.example", "ip": "10.0.0.1"})
    proxies = [{"domains": [mark(vpn, revision)], "serverips": ["10.9.9.9"]}]
    return message(vpn, dnshosts=hosts, dnsproxies=proxies, dnsservers=[], persistentflag=True)


class Publisher:
    """Publishes revisions of all VPNs. The last one of each VPN is not refused."""

    def __init__(self, controller, dice):
        self.controller, self.dice = controller, dice
        self.published = {vpn: {} for vpn in VPNS}  # the result of each revision: it is refused, or not
        self.newest = {}                            # the payload
        self.failures = []
        self.thread = threading.Thread(target=self._run)

    def _run(self):
        try:
            for number in range(REVISIONS):
                threading.Event().wait(self.dice.uniform(0, 0.2))
                self._publish(self.dice.choice(VPNS) if number < REVISIONS - len(VPNS) else VPNS[number - REVISIONS],
                              number < REVISIONS - len(VPNS))
        except Exception as failure:  # is told at the end: the thread has nobody to tell
            self.failures.append(failure)

    def _publish(self, vpn, may_be_refused):
        is_refused = may_be_refused and self.dice.randrange(REFUSED_IN) == 0
        revision = max(self.published[vpn], default=0) + self.dice.randrange(1, 4)
        self.published[vpn][revision] = is_refused
        self.newest[vpn] = packed(content(vpn, revision, is_refused))
        self.put_newest(vpn)

    def put_newest(self, vpn):
        self.controller.put(f"kavel/{BOX}/desired/{vpn}", self.newest[vpn], max(self.published[vpn]))

    def join(self):
        self.thread.join()
        assert self.failures == []


class Historian:
    """Collects the agent's history, which keeps the last messages alone."""

    def __init__(self):
        self.entries = {vpn: {} for vpn in VPNS}  # by number: each entry has the next one
        self.is_over = threading.Event()
        self.thread = threading.Thread(target=self._run)

    def _run(self):
        while not self.is_over.wait(0.05):
            self.read()

    def read(self):
        try:
            with sqlite3.connect(f"file:{STORE}?mode=ro", uri=True) as store:
                for vpn, number, revision, result in store.execute("SELECT vpn_id, number, revision, result FROM history"):
                    self.entries[vpn][number] = Entry(int(revision), result)
        except sqlite3.OperationalError:
            pass  # busy, or not there yet; the last read must succeed: see check_history()

    def close(self):
        self.is_over.set()
        self.thread.join()
        self.read()


class Killer:
    """Kills one of the three with SIGKILL and starts it again."""

    def __init__(self, fleet, box, link, dice):
        self.fleet, self.box, self.link, self.dice = fleet, box, link, dice
        self.kills = collections.Counter()
        self.found = set()   # (VPN, revision) in force when the agent was killed
        self.silent = set()  # those of them of which there was no line in the log

    def run(self):
        for number in range(KILLS):
            victim = ("broker", "link", "agent")[number % 3]
            threading.Event().wait(self.dice.uniform(0.2, 1.6))
            self.kills[victim] += 1
            getattr(self, f"_kill_{victim}")()

    def _kill_broker(self):
        self.fleet.broker.kill()
        self.fleet.broker.start()

    def _kill_link(self):
        self.link.kill()
        self.link.spawn()

    def _kill_agent(self):
        self.box.agent.kill()
        self.box.agent.wait()
        marks = marks_in(self.box)
        for vpn in VPNS:
            revision = revision_in_force(vpn)
            if revision:
                self.found.add((vpn, revision))
                self.silent |= {(vpn, revision)} if not marks[vpn, revision] else set()
        self.box.agent = self.box.spawn()


def revision_in_force(vpn):
    """From the agent's own file; only while it does not run."""
    path = STATE / f"vpn_{vpn}.inforce"
    found = re.search(rb"^revision (\d+)$", path.read_bytes(), re.MULTILINE) if path.exists() else None
    return int(found[1]) if found else None


def marks_in(box):
    """How often each message was in force, by (VPN, revision)."""
    return collections.Counter((int(vpn), int(revision)) for vpn, revision in re.findall(
        r'WARNING vpn \d+: dnsproxies\[0\]\.domains\[0\]: is skipped: "mark-(\d+)-(\d+)_', box.log()))


def check_history(historian, publisher):
    """Each message was answered once, in rising order, and with the right result."""
    for vpn in VPNS:
        entries = historian.entries[vpn]
        assert sorted(entries) == list(range(min(entries), max(entries) + 1)), f"{vpn}: an entry was not seen"
        revisions = [entries[number].revision for number in sorted(entries)]
        assert revisions == sorted(set(revisions)), f"{vpn}: {revisions}"
        assert revisions[-1] == max(publisher.published[vpn])
        for revision, result in entries.values():
            assert (result < 0) == publisher.published[vpn][revision], f"{vpn}: {revision}: {result}"


def applied_counts(box, killer, publisher):
    """How often each message that was not refused came into force."""
    counts = marks_in(box) + collections.Counter(killer.silent)
    return {(vpn, revision): count for (vpn, revision), count in counts.items()
            if not publisher.published[vpn][revision]}


def check_applied_once(box, killer, publisher):
    counts = applied_counts(box, killer, publisher)
    assert {key: count for key, count in counts.items() if count != 1} == {}
    assert len(counts) > KILLS and len(killer.found) > len(VPNS)  # or else the check is worth nothing


def check_reports(controller, historian, publisher, applied):
    """Every report that was heard: what it says of a revision is what the agent did with it."""
    heard = 0
    for topic, payload, is_retained in controller.heard:
        found = re.fullmatch(rf"kavel/{BOX}/reported/(\d+)", topic)
        if not found:
            continue
        vpn, report = int(found[1]), json.loads(payload)
        results = {entry.revision: entry.result for entry in historian.entries[vpn].values()}
        assert "problem" not in report, report
        assert report["revision"] in publisher.published[vpn], report
        is_refused = report["result"] == "refused"
        assert is_refused == publisher.published[vpn][report["revision"]], report
        if report["revision"] in results:
            assert is_refused == (results[report["revision"]] < 0), report
        else:
            assert (vpn, report["revision"]) in applied, report
        assert not is_refused or report["reason"] == "dnsmasq dns host[1].domain is invalid", report
        check_in_force(vpn, report, applied)
        heard += 1
    assert heard > KILLS


def check_in_force(vpn, report, applied):
    """What a report says is in force was so. It may be newer than what was answered: it is not answered yet then."""
    newest = max((revision for other, revision in applied if other == vpn and revision <= report["revision"]), default=0)
    in_force = report.get("inForce", 0)
    assert in_force >= newest and (in_force == 0 or (vpn, in_force) in applied), report


def check_rising(controller):
    """A report that is told later is about the same revision or a newer one."""
    last = {}
    for topic, payload, is_retained in controller.heard:
        if "/reported/" in topic and not is_retained:
            revision = json.loads(payload)["revision"]
            assert revision >= last.get(topic, 0), f"{topic}: {revision} after {last[topic]}"
            last[topic] = revision


def test_kills(fleet, box, seed):
    print(f"KAVEL_SEED={seed}")
    dice = random.Random(seed)
    link = fleet.link().start()
    publisher = Publisher(fleet.controller, random.Random(dice.random()))
    historian = Historian()
    killer = Killer(fleet, box, link, random.Random(dice.random()))
    historian.thread.start()
    publisher.thread.start()
    try:
        killer.run()
    finally:
        publisher.join()
    assert sum(killer.kills.values()) == KILLS

    for vpn in VPNS:
        publisher.put_newest(vpn)  # what the broker has lost of it is there again
        newest = max(publisher.published[vpn])
        fleet.controller.wait_report(vpn, revision=newest, result="applied", inForce=newest, enabled=True, running=True,
                                     seconds=SETTLED_WITHIN)
        name = f"nas.vpn{vpn}.example"
        wait_until(lambda: ask(name, vpn=vpn) == [address(newest)], lambda: f"{name}: {ask(name, vpn=vpn)}")
    historian.close()
    check_history(historian, publisher)
    check_applied_once(box, killer, publisher)
    applied = set(applied_counts(box, killer, publisher))
    check_reports(fleet.controller, historian, publisher, applied)
    check_rising(fleet.controller)

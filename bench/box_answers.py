"""One VPN: from a message to the new answer, what is lost meanwhile, how many messages a box takes, hosts per VPN.

KAVEL_BUILD=FOLDER scripts/private bench/box_answers.py --out FILE [--quick]
"""

import os
import signal
import statistics
import time

from box_dns import Client, Traffic
from box_world import (STORE, Controllers, add_namespaces, agent, contents_of, disk, end_bare, host_of, hosts_message,
                       instance_pid, replace_durably, start_bare, write_hosts)
from pairs import PAIRS, Figures, arguments, interleaved, seconds

OURS, BARE = 1, 2  # the VPN of the agent, and the one of the instance without it
ADDRESSES = ("192.0.2.1", "192.0.2.2")
HOSTS = (1, 10, 100, 1024)
MANY_HOSTS = (*HOSTS, 10_000, 100_000)
RATE = 1000  # questions a second
PACE = 0.05  # from one change to the next while questions are counted


class Bench:
    def __init__(self, control, quick):
        self.control = control
        self.repeats = 3 if quick else 10  # of what a value is the mean of
        self.changes = 20 if quick else 100
        self.bursts = 20 if quick else 100
        self.turn = 0
        self.clients = {vpn: Client(vpn, host_of(vpn)) for vpn in (OURS, BARE)}
        self.bare = None

    def new_address(self):
        self.turn += 1
        return ADDRESSES[self.turn % 2]

    def mean(self, once):
        return statistics.mean(once() for _ in range(self.repeats))

    def start_bare(self):
        self.bare = start_bare(BARE)

    def restart_bare(self):
        end_bare(self.bare)
        self.start_bare()

    def message_to_answer(self, messages):
        """With a message for each address, prepared before."""
        address = self.new_address()

        def work():
            self.control.send(messages[address])
            self.clients[OURS].until(address)

        return seconds(work)

    def change_to_answer(self, vpn, hosts, change):
        """With the file written before."""
        address = self.new_address()
        write_hosts(vpn, hosts, address)

        def work():
            change()
            self.clients[vpn].until(address)

        return seconds(work)


def hang_up(vpn):
    os.kill(instance_pid(vpn), signal.SIGHUP)


def by_address(hosts, operation, **options):
    return {address: hosts_message(OURS, hosts, address, operation, **options) for address in ADDRESSES}


def new_answers(bench, figures):
    for hosts in HOSTS:
        messages = by_address(hosts, "reload")
        ours, floor = interleaved(
            PAIRS, lambda: bench.mean(lambda: bench.message_to_answer(messages)),
            lambda: bench.mean(lambda: bench.change_to_answer(OURS, hosts, lambda: hang_up(OURS))))
        figures.add("message to new answer, reload, by hosts", hosts, "s", ours, floor, "SIGHUP to new answer")
        files = contents_of(OURS)
        figures.add("the files of a message written durably, nothing else, by hosts", hosts, "s",
                    [bench.mean(lambda: seconds(lambda: replace_durably(OURS, files))) for _ in range(PAIRS)])
    for hosts in HOSTS:
        messages = by_address(hosts, "reboot")
        ours, floor = interleaved(
            PAIRS, lambda: bench.mean(lambda: bench.message_to_answer(messages)),
            lambda: bench.mean(lambda: bench.change_to_answer(BARE, hosts, bench.restart_bare)))
        figures.add("message to new answer, restart, by hosts", hosts, "s", ours, floor, "end, start, answer")


def lost(vpn, changes, change):
    """Questions without an answer while the instance is changed at a steady pace."""
    with Traffic(vpn, host_of(vpn), RATE) as traffic:
        due = time.perf_counter()
        for _ in range(changes):
            change()
            due += PACE
            time.sleep(max(0.0, due - time.perf_counter()))
    if traffic.sent < changes * PACE * RATE / 2:
        raise RuntimeError(f"only {traffic.sent} questions sent")
    return traffic.lost


def lost_questions(bench, figures, pairs):
    def send(messages):
        return lambda: bench.control.send(messages[bench.new_address()])

    reload, reboot = by_address(100, "reload"), by_address(100, "reboot")
    ours, floor = interleaved(pairs, lambda: lost(OURS, bench.changes, send(reload)),
                              lambda: lost(OURS, bench.changes, lambda: hang_up(OURS)))
    figures.add(f"lost at {RATE} questions/s, by reloads", bench.changes, "queries", ours, floor, "SIGHUP", limit=0)
    ours, floor = interleaved(pairs, lambda: lost(OURS, bench.changes, send(reboot)),
                              lambda: lost(BARE, bench.changes, bench.restart_bare))
    figures.add(f"lost at {RATE} questions/s, by restarts", bench.changes, "queries", ours, floor, "end, start")


def message_rate(bench, figures):
    """Back to back over one connection, without waiting for the new answer: that is dnsmasq's own time."""
    for operation in ("reload", "reboot"):
        for kept in (False, True):
            messages = by_address(20, operation, kept=kept)

            def burst():
                for _ in range(bench.bursts):
                    bench.control.send(messages[bench.new_address()])

            each = [seconds(burst) / bench.bursts for _ in range(PAIRS)]
            stored = "stored" if kept else "not stored"
            figures.add(f"a message of many, {operation}, 20 hosts, {stored}", 1, "s", each)


def hosts_per_vpn(bench, figures):
    """Where SIGHUP stops being cheap, and what a start costs: dnsmasq alone, files written straight."""
    for hosts in MANY_HOSTS:
        def deaf():
            address = bench.new_address()
            write_hosts(BARE, hosts, address)
            os.kill(bench.bare, signal.SIGHUP)
            return bench.clients[BARE].until(address)

        renewed = [bench.change_to_answer(BARE, hosts, lambda: os.kill(bench.bare, signal.SIGHUP))
                   for _ in range(PAIRS)]
        figures.add("SIGHUP to new answer, by hosts", hosts, "s", renewed)
        figures.add("longest silence after SIGHUP, by hosts", hosts, "s", [deaf() for _ in range(PAIRS)])
        end_bare(bench.bare)
        started = []
        for _ in range(PAIRS):
            started.append(bench.change_to_answer(BARE, hosts, bench.start_bare))
            end_bare(bench.bare)
        figures.add("start of an instance to answer, by hosts", hosts, "s", started)
        bench.start_bare()
        bench.clients[BARE].until(ADDRESSES[bench.turn % 2])


def prepare_bare(bench):
    """The files of its VPN come from a message; the instance that runs on them is not the agent's."""
    for enable in (True, False):
        bench.control.send(hosts_message(BARE, 1, ADDRESSES[0], "reboot", enable=enable))
    bench.start_bare()


def main():
    options = arguments(__doc__)
    figures = Figures(options.out)
    add_namespaces((OURS, BARE))
    with disk(), agent((OURS, BARE), persistence=True, store=str(STORE)):
        bench = Bench(Controllers(), options.quick)
        bench.control.send(hosts_message(OURS, 1, ADDRESSES[0], "reboot"))
        prepare_bare(bench)
        new_answers(bench, figures)
        lost_questions(bench, figures, 2 if options.quick else PAIRS)
        message_rate(bench, figures)
        hosts_per_vpn(bench, figures)
        end_bare(bench.bare)
    figures.write()


if __name__ == "__main__":
    main()

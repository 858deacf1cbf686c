"""One VPN: time from a message to the new answer, queries lost meanwhile, messages per second, hosts per VPN.

KAVEL_BUILD=BUILD_DIR scripts/private bench/box_answers.py --out FILE [--quick | --brief]
"""

import os
import signal
import statistics
import time

from box_dns import Client, Traffic
from box_world import (STORE, Controllers, add_namespaces, agent, contents_of, disk, host_of, hosts_message,
                       instance_pid, replace_durably, start_bare, stop_bare, write_hosts)
from pairs import Figures, arguments, interleaved, seconds

OURS, BARE = 1, 2  # the VPN that the agent serves, and the VPN whose instance runs without the agent
ADDRESSES = ("192.0.2.1", "192.0.2.2")
HOSTS = (1, 10, 100, 1024)
MANY_HOSTS = (*HOSTS, 10_000, 100_000)
RATE = 1000  # queries per second
SIGHUPS = 10  # aim: what a reload with the most hosts may cost beside its files
RESTART = 2.5  # aim
PACE = 0.05  # seconds between two changes while queries are counted


class Bench:
    def __init__(self, control, short):
        self.control = control
        self.repeats = 3 if short else 10  # each value is the mean of as many measurements
        self.changes = 20 if short else 100
        self.burst = 20 if short else 100  # messages
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
        stop_bare(self.bare)
        self.start_bare()

    def message_to_answer(self, messages):
        """Seconds. `messages` has a prepared message for each address."""
        address = self.new_address()

        def work():
            self.control.send(messages[address])
            self.clients[OURS].until(address)

        return seconds(work)

    def change_to_answer(self, vpn, hosts, change):
        """Seconds, without writing the file."""
        address = self.new_address()
        write_hosts(vpn, hosts, address)

        def work():
            change()
            self.clients[vpn].until(address)

        return seconds(work)


def send_sighup(vpn):
    os.kill(instance_pid(vpn), signal.SIGHUP)


def by_address(hosts, operation, **options):
    """Two messages that differ in the address of the queried host."""
    return {address: hosts_message(OURS, hosts, address, operation, **options) for address in ADDRESSES}


def new_answers(bench, figures):
    for hosts in HOSTS:
        messages = by_address(hosts, "reload")
        ours, floor = interleaved(
            figures.pairs, lambda: bench.mean(lambda: bench.message_to_answer(messages)),
            lambda: bench.mean(lambda: bench.change_to_answer(OURS, hosts, lambda: send_sighup(OURS))))
        figures.add("message to new answer, reload, by hosts", hosts, "s", ours, floor, "SIGHUP to new answer")
        files = contents_of(OURS)
        written = [bench.mean(lambda: seconds(lambda: replace_durably(OURS, files))) for _ in range(figures.pairs)]
        figures.add("durable write of a message's files alone, by hosts", hosts, "s", written)
        if hosts == HOSTS[-1]:
            figures.add("message to new answer, reload, with its files", hosts, "s", ours,
                        [SIGHUPS * sighup + files for sighup, files in zip(floor, written)],
                        f"SIGHUP to new answer, {SIGHUPS} times, and the durable write of the files", target=1)
    for hosts in HOSTS:
        messages = by_address(hosts, "reboot")
        ours, floor = interleaved(
            figures.pairs, lambda: bench.mean(lambda: bench.message_to_answer(messages)),
            lambda: bench.mean(lambda: bench.change_to_answer(BARE, hosts, bench.restart_bare)))
        figures.add("message to new answer, restart, by hosts", hosts, "s", ours, floor, "stop, start, first answer",
                    target=RESTART if hosts == HOSTS[-1] else None)


def lost(vpn, changes, change):
    """Queries without an answer while the instance is changed at a steady rate."""
    with Traffic(vpn, host_of(vpn), RATE) as traffic:
        due = time.perf_counter()
        for _ in range(changes):
            change()
            due += PACE
            time.sleep(max(0.0, due - time.perf_counter()))
    if traffic.sent < changes * PACE * RATE / 2:
        raise RuntimeError(f"only {traffic.sent} queries sent")
    return traffic.lost


def lost_queries(bench, figures, pairs):
    def send(messages):
        return lambda: bench.control.send(messages[bench.new_address()])

    reload, reboot = by_address(100, "reload"), by_address(100, "reboot")
    ours, floor = interleaved(pairs, lambda: lost(OURS, bench.changes, send(reload)),
                              lambda: lost(OURS, bench.changes, lambda: send_sighup(OURS)))
    figures.add(f"queries lost at {RATE:,}/s, by reloads", bench.changes, "queries", ours, floor, "SIGHUP", limit=0)
    ours, floor = interleaved(pairs, lambda: lost(OURS, bench.changes, send(reboot)),
                              lambda: lost(BARE, bench.changes, bench.restart_bare))
    figures.add(f"queries lost at {RATE:,}/s, by restarts", bench.changes, "queries", ours, floor, "stop, start")


def message_rate(bench, figures):
    """Messages in sequence over one connection, without waiting for dnsmasq to answer with the new address."""
    for operation, name in (("reload", "reload"), ("reboot", "restart")):
        for kept in (False, True):
            messages = by_address(20, operation, kept=kept)

            def burst():
                for _ in range(bench.burst):
                    bench.control.send(messages[bench.new_address()])

            each = [seconds(burst) / bench.burst for _ in range(figures.pairs)]
            stored = "stored" if kept else "not stored"
            figures.add(f"message in a burst, {name}, 20 hosts, {stored}", 1, "s", each)


def hosts_per_vpn(bench, figures):
    """Cost of SIGHUP and of a start, by hosts: dnsmasq alone, with files that this program writes."""
    for hosts in MANY_HOSTS:
        def time_without_answer():
            address = bench.new_address()
            write_hosts(BARE, hosts, address)
            os.kill(bench.bare, signal.SIGHUP)
            return bench.clients[BARE].until(address)

        renewed = [bench.change_to_answer(BARE, hosts, lambda: os.kill(bench.bare, signal.SIGHUP))
                   for _ in range(figures.pairs)]
        figures.add("SIGHUP to new answer, by hosts", hosts, "s", renewed)
        figures.add("longest time without an answer after SIGHUP, by hosts", hosts, "s",
                    [time_without_answer() for _ in range(figures.pairs)])
        stop_bare(bench.bare)
        started = []
        for _ in range(figures.pairs):
            started.append(bench.change_to_answer(BARE, hosts, bench.start_bare))
            stop_bare(bench.bare)
        figures.add("instance start to first answer, by hosts", hosts, "s", started)
        bench.start_bare()
        bench.clients[BARE].until(ADDRESSES[bench.turn % 2])


def prepare_bare(bench):
    """Starts the instance without the agent. Its files come from a message to the agent."""
    for enable in (True, False):
        bench.control.send(hosts_message(BARE, 1, ADDRESSES[0], "reboot", enable=enable))
    bench.start_bare()


def main():
    options = arguments(__doc__)
    figures = Figures(options)
    add_namespaces((OURS, BARE))
    with disk(), agent((OURS, BARE), persistence=True, store=str(STORE)):
        bench = Bench(Controllers(), options.quick or options.brief)
        bench.control.send(hosts_message(OURS, 1, ADDRESSES[0], "reboot"))
        prepare_bare(bench)
        new_answers(bench, figures)
        lost_queries(bench, figures, 1 if options.brief else 2 if options.quick else figures.pairs)
        message_rate(bench, figures)
        if not options.brief:  # dnsmasq alone: the same in every build
            hosts_per_vpn(bench, figures)
        stop_bare(bench.bare)
    figures.write()


if __name__ == "__main__":
    main()

"""Many VPNs: brought up from messages, recovered, looked at; what each takes of the box's memory.

KAVEL_BUILD=FOLDER scripts/private bench/box_many.py --out FILE [--quick]
"""

import contextlib
import os
import resource
import signal
import sys

from box_dns import Client
from box_world import (STORE, Controllers, add_namespaces, agent, bytes_in, contents_of, disk, end_instances, host_of,
                       hosts_message, instances, messages_for, most_instances, replace_durably, start_bare)
from pairs import PAIRS, Figures, arguments, interleaved, seconds

FIRST = 1001  # all numbers have four digits: none begins another
SIZES = (1, 10, 100, 1000)
HOSTS = 20
CONTROLLERS = 4  # connections that messages come through
ADDRESS = "192.0.2.1"
RECOVERY_MEMORY = 300 << 20
IDLE_MEMORY = 12 << 20
STATUS_SECONDS = 2
MOST_IN_DETAIL = 100
OTHER_DESCRIPTORS = 256
ENOUGH_TO_WEIGH = 1000  # below, what else the box does weighs more
BARE_LOOP = "the same instances started on prepared files"


class Crowd:
    """VPNs and their clients."""

    def __init__(self, count):
        self.vpns = range(FIRST, FIRST + count)
        self.clients = [Client(vpn, host_of(vpn)) for vpn in self.vpns]

    def close(self):
        for client in self.clients:
            client.close()

    def until_all_answer(self):
        for client in self.clients:
            client.until(ADDRESS)

    def messages(self, hosts=HOSTS, **options):
        return messages_for(self.vpns, hosts, ADDRESS, "reboot", **options)

    def start_bare(self, one_by_one=False):
        """Seconds until all answer; the instances are gone afterwards."""
        started = []

        def work():
            for vpn, client in zip(self.vpns, self.clients):
                started.append(start_bare(vpn))
                if one_by_one:
                    client.until(ADDRESS)
            self.until_all_answer()

        took = seconds(work)
        for pid in started:
            os.kill(pid, signal.SIGTERM)
        for pid in started:
            os.waitpid(pid, 0)
        end_instances()
        return took

    def start_bare_durably(self):
        """The same with the files of each written first, as durably as those of a message."""
        contents = {vpn: contents_of(vpn) for vpn in self.vpns}

        def work():
            for vpn in self.vpns:
                replace_durably(vpn, contents[vpn])

        return seconds(work) + self.start_bare()


@contextlib.contextmanager
def crowd_of(count):
    crowd = Crowd(count)
    try:
        yield crowd
    finally:
        crowd.close()


def bring_up(crowd, controllers, messages, switch_off):
    """Seconds until all answer; they are switched off again afterwards."""
    def work():
        controllers.send_all(messages)
        crowd.until_all_answer()

    took = seconds(work)
    controllers.send_all(switch_off)
    return took


def brought_up(crowd, figures, work, floor, floor_name, target=None, at_once=CONTROLLERS, hosts=HOSTS):
    with agent(crowd.vpns):
        controllers = Controllers(at_once)
        messages, switch_off = crowd.messages(hosts), crowd.messages(hosts, enable=False)
        bring_up(crowd, controllers, messages, switch_off)
        ours, least = interleaved(PAIRS, lambda: bring_up(crowd, controllers, messages, switch_off), floor)
        controllers.close()
    figures.add(work, len(crowd.vpns), "s", ours, least, floor_name, target=target)


def status(box, figures, count, what):
    def look():
        box.vqctl("status")

    figures.add(f"vqctl status, {what}, by VPNs", count, "s", [seconds(look) for _ in range(PAIRS)],
                limit=STATUS_SECONDS)


def memory_of_instances(figures, count):
    running = instances()[:25]
    for what, field in (("PSS", "Pss:"), ("USS", "Private_")):
        figures.add(f"an instance's {what}, {HOSTS} hosts, by VPNs", count, "bytes",
                    [bytes_in(f"{pid}/smaps_rollup", field) for pid in running])


def stored_and_running(crowd, figures):
    """All of them stored and running, looked at; then stopped and looked at again. The store is left for recovery."""
    count = len(crowd.vpns)
    before = bytes_in("meminfo", "MemAvailable")
    with agent(crowd.vpns, persistence=True, store=str(STORE)) as box:
        controllers = Controllers(CONTROLLERS)
        controllers.send_all(crowd.messages(kept=True))
        crowd.until_all_answer()
        memory_of_instances(figures, count)
        left = bytes_in("meminfo", "MemAvailable")
        if count >= ENOUGH_TO_WEIGH:
            figures.add("box memory taken by a VPN that runs, by VPNs", count, "bytes", [(before - left) / count])
        status(box, figures, count, "running")
        end_instances()
        status(box, figures, count, "instances gone")
        controllers.close()


def recover(crowd, peaks):
    """Seconds from the agent's start until all that is stored answers."""
    def work():
        entered.append(running.enter_context(
            agent(crowd.vpns, persistence=True, store=str(STORE))))
        crowd.until_all_answer()

    entered = []
    with contextlib.ExitStack() as running:
        took = seconds(work)
        peaks.append(bytes_in(f"{entered[0].agent.pid}/status", "VmHWM:"))
    return took


def recovered(crowd, figures):
    peaks = []
    ours, floor = interleaved(PAIRS, lambda: recover(crowd, peaks), crowd.start_bare)
    figures.add("stored VPNs recovered until all answer, by VPNs", len(crowd.vpns), "s", ours, floor, BARE_LOOP)
    figures.add("peak memory of the agent at recovery, by VPNs", len(crowd.vpns), "bytes", peaks,
                limit=RECOVERY_MEMORY)


def idle(figures):
    """The agent with one VPN that runs, after its first message."""
    resident = []
    for _ in range(PAIRS):
        with agent((FIRST,), persistence=True, store=str(STORE)) as box:
            Controllers().send(hosts_message(FIRST, HOSTS, ADDRESS, "reboot"))
            resident.append(bytes_in(f"{box.agent.pid}/status", "VmRSS:"))
    figures.add("idle agent, resident", 1, "bytes", resident, limit=IDLE_MEMORY)


def measure(count, figures):
    with crowd_of(count) as crowd:
        brought_up(crowd, figures, "VPNs brought up from messages until all answer, files in memory, by VPNs",
                   crowd.start_bare, BARE_LOOP, target=1.5)
        stored_and_running(crowd, figures)
        recovered(crowd, figures)
        if count <= MOST_IN_DETAIL:
            brought_up(crowd, figures, "VPNs of one host brought up, files in memory, by VPNs", crowd.start_bare,
                       BARE_LOOP, hosts=1)
            brought_up(crowd, figures, "VPNs brought up one by one, files in memory, by VPNs",
                       lambda: crowd.start_bare(one_by_one=True), "the same instances, each awaited before the next",
                       at_once=1)
            with disk():
                brought_up(crowd, figures, "VPNs brought up from messages until all answer, files on disk, by VPNs",
                           crowd.start_bare_durably, "the same, and their files written durably before")


def affordable(options):
    """The sizes that this box, and the patience of whoever measures, allow."""
    most = min(100 if options.quick else SIZES[-1], most_instances())
    sizes = [size for size in SIZES if size <= most]
    if sizes[-1] < SIZES[-1]:
        print(f"box_many: up to {sizes[-1]} VPNs, not {SIZES[-1]}", file=sys.stderr)
    return sizes


def allow_descriptors(clients):
    least, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(max(least, clients + OTHER_DESCRIPTORS), most), most))


def namespaces(count, figures):
    before = bytes_in("meminfo", "MemAvailable")
    add_namespaces(range(FIRST, FIRST + count))
    if count >= ENOUGH_TO_WEIGH:
        figures.add("box memory taken by an empty namespace", count, "bytes",
                    [(before - bytes_in("meminfo", "MemAvailable")) / count])


def main():
    options = arguments(__doc__)
    figures = Figures(options.out)
    sizes = affordable(options)
    allow_descriptors(sizes[-1])
    namespaces(sizes[-1], figures)
    idle(figures)
    for count in sizes:
        measure(count, figures)
    figures.write()


if __name__ == "__main__":
    main()

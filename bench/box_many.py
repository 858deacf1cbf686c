"""Many VPNs: started by messages, recovered, their status and their memory.

KAVEL_BUILD=BUILD_DIR scripts/private bench/box_many.py --out FILE [--quick | --brief]
"""

import contextlib
import json
import os
import pathlib
import resource
import signal
import sys
import time

from box_dns import Client
from box_world import (CONFIG, STORE, Controllers, add_namespaces, agent, bytes_in, contents_of, disk,
                       host_of, hosts_message, instances, messages_for, most_instances, replace_durably, start_bare, stop_instances)
from pairs import Figures, arguments, interleaved, seconds

FIRST = 1001  # all ids have four digits, so that none is the beginning of another
SIZES = (1, 10, 100, 1000)
HOSTS = 20
CONTROLLERS = 4  # connections that send messages
ADDRESS = "192.0.2.1"
RECOVERY_MEMORY = 300 << 20  # aim, bytes
IDLE_MEMORY = 12 << 20  # aim, bytes
STATUS_SECONDS = 2  # aim
WATCHING_BEGINS = 35  # seconds until every VPN was looked at once
WATCHING = 60  # seconds
IDLE_SHARE = 0.03  # aim
WATCHING_MEMORY = 24 << 20  # aim, bytes
MOST_IN_DETAIL = 100  # VPNs in the cases with one host, one by one and on disk
OTHER_DESCRIPTORS = 256
LEAST_FOR_MEMORY = 1000  # VPNs; with fewer, other changes of the box's free memory are larger
BARE_LOOP = "dnsmasq alone, started with prepared files"


class Vpns:
    """VPNs, each with a client."""

    def __init__(self, count):
        self.ids = range(FIRST, FIRST + count)
        self.clients = [Client(vpn, host_of(vpn)) for vpn in self.ids]

    def close(self):
        for client in self.clients:
            client.close()

    def until_all_answer(self):
        for client in self.clients:
            client.until(ADDRESS)

    def messages(self, hosts=HOSTS, **options):
        return messages_for(self.ids, hosts, ADDRESS, "reboot", **options)

    def start_bare(self, one_by_one=False):
        """Starts instances without the agent. Seconds until all answer; stops them afterwards."""
        started = []

        def work():
            for vpn, client in zip(self.ids, self.clients):
                started.append(start_bare(vpn))
                if one_by_one:
                    client.until(ADDRESS)
            self.until_all_answer()

        took = seconds(work)
        for pid in started:
            os.kill(pid, signal.SIGTERM)
        for pid in started:
            os.waitpid(pid, 0)
        stop_instances()
        return took

    def start_bare_durably(self):
        """The same, including a durable write of all files before the start."""
        contents = {vpn: contents_of(vpn) for vpn in self.ids}

        def work():
            for vpn in self.ids:
                replace_durably(vpn, contents[vpn])

        return seconds(work) + self.start_bare()


@contextlib.contextmanager
def vpns_with_clients(count):
    vpns = Vpns(count)
    try:
        yield vpns
    finally:
        vpns.close()


def start_by_messages(vpns, controllers, messages, disable):
    """Seconds until all answer; disables them again afterwards."""
    def work():
        controllers.send_all(messages)
        vpns.until_all_answer()

    took = seconds(work)
    controllers.send_all(disable)
    return took


def compare_start(vpns, figures, work, floor, floor_name, target=None, connections=CONTROLLERS, hosts=HOSTS):
    with agent(vpns.ids):
        controllers = Controllers(connections)
        messages, disable = vpns.messages(hosts), vpns.messages(hosts, enable=False)
        start_by_messages(vpns, controllers, messages, disable)
        ours, least = interleaved(
            figures.pairs, lambda: start_by_messages(vpns, controllers, messages, disable), floor)
        controllers.close()
    figures.add(work, len(vpns.ids), "s", ours, least, floor_name, target=target)


def measure_status(box, figures, count, what):
    def status():
        box.vqctl("status")

    figures.add(f"vqctl status, all instances {what}, by VPNs", count, "s",
                [seconds(status) for _ in range(figures.pairs)], limit=STATUS_SECONDS)


def measure_instance_memory(figures, count):
    running = instances()[:25]
    for what, field in (("PSS", "Pss:"), ("USS", "Private_")):
        figures.add(f"{what} of an instance with {HOSTS} hosts, by VPNs", count, "bytes",
                    [bytes_in(f"{pid}/smaps_rollup", field) for pid in running])


def measure_watching(box, figures, count):
    """What the agent needs while nothing happens."""
    time.sleep(WATCHING_BEGINS)
    before, start = processor_seconds(box.agent.pid), time.perf_counter()
    time.sleep(WATCHING)
    share = (processor_seconds(box.agent.pid) - before) / (time.perf_counter() - start)
    figures.add("agent that watches idle VPNs, share of one processor", count, "processors", [share], limit=IDLE_SHARE)
    figures.add("resident memory of the agent that watches VPNs", count, "bytes",
                [bytes_in(f"{box.agent.pid}/status", "VmRSS:")], limit=WATCHING_MEMORY)


def measure_status_of_stopped(box, vpns, figures):
    """With an agent that repairs nothing: another would start the instances again."""
    box.stop()
    config = json.loads(CONFIG.read_text())
    CONFIG.write_text(json.dumps({**config, "watch": {"repair": False}}))
    box.start()
    stop_instances()
    measure_status(box, figures, len(vpns.ids), "stopped")


def measure_stored_and_running(vpns, figures):
    """Memory and status while all VPNs run, then status with all stopped. The store is kept for recovery."""
    count = len(vpns.ids)
    before = bytes_in("meminfo", "MemAvailable")
    with agent(vpns.ids, persistence=True, store=str(STORE)) as box:
        controllers = Controllers(CONTROLLERS)
        controllers.send_all(vpns.messages(kept=True))
        vpns.until_all_answer()
        measure_instance_memory(figures, count)
        left = bytes_in("meminfo", "MemAvailable")
        if count >= LEAST_FOR_MEMORY:
            figures.add("memory of the box per running VPN, by VPNs", count, "bytes", [(before - left) / count])
        measure_status(box, figures, count, "running")
        if count >= LEAST_FOR_MEMORY:
            measure_watching(box, figures, count)
        measure_status_of_stopped(box, vpns, figures)
        controllers.close()


def processor_seconds(pid):
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def recover(vpns, peaks):
    """Seconds from the start of the agent until all stored VPNs answer."""
    def work():
        entered.append(running.enter_context(
            agent(vpns.ids, persistence=True, store=str(STORE))))
        vpns.until_all_answer()

    entered = []
    with contextlib.ExitStack() as running:
        took = seconds(work)
        peaks.append(bytes_in(f"{entered[0].agent.pid}/status", "VmHWM:"))
    return took


def compare_recovery(vpns, figures):
    peaks = []
    ours, floor = interleaved(figures.pairs, lambda: recover(vpns, peaks), vpns.start_bare)
    figures.add("stored VPNs recovered until all answer, by VPNs", len(vpns.ids), "s", ours, floor, BARE_LOOP)
    figures.add("peak memory of the agent during recovery, by VPNs", len(vpns.ids), "bytes", peaks,
                limit=RECOVERY_MEMORY)


def measure_idle(figures):
    """Memory of the agent with one running VPN, after its first message."""
    resident = []
    for _ in range(figures.pairs):
        with agent((FIRST,), persistence=True, store=str(STORE)) as box:
            Controllers().send(hosts_message(FIRST, HOSTS, ADDRESS, "reboot"))
            resident.append(bytes_in(f"{box.agent.pid}/status", "VmRSS:"))
    figures.add("resident memory of the idle agent", 1, "bytes", resident, limit=IDLE_MEMORY)


def measure(count, figures):
    with vpns_with_clients(count) as vpns:
        compare_start(vpns, figures, "VPNs started by messages until all answer, files in memory, by VPNs",
                      vpns.start_bare, BARE_LOOP, target=2.2)
        measure_stored_and_running(vpns, figures)
        compare_recovery(vpns, figures)
        if count <= MOST_IN_DETAIL:
            compare_start(vpns, figures, "VPNs with one host started by messages, files in memory, by VPNs",
                          vpns.start_bare, BARE_LOOP, hosts=1)
            compare_start(vpns, figures, "VPNs started by messages one by one, files in memory, by VPNs",
                          lambda: vpns.start_bare(one_by_one=True), "dnsmasq alone, one after the other",
                          connections=1)
            with disk():
                compare_start(vpns, figures, "VPNs started by messages until all answer, files on disk, by VPNs",
                              vpns.start_bare_durably, "dnsmasq alone, after its files were written durably")


def sizes_to_measure(options):
    """The sizes that the options and the number of inotify instances allow."""
    most = min(10 if options.brief else 100 if options.quick else SIZES[-1], most_instances())
    sizes = [size for size in SIZES if size <= most]
    if sizes[-1] < SIZES[-1]:
        print(f"box_many: up to {sizes[-1]} VPNs, not {SIZES[-1]}", file=sys.stderr)
    return sizes


def allow_descriptors(clients):
    least, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(max(least, clients + OTHER_DESCRIPTORS), most), most))


def measure_namespaces(count, figures):
    before = bytes_in("meminfo", "MemAvailable")
    add_namespaces(range(FIRST, FIRST + count))
    if count >= LEAST_FOR_MEMORY:
        figures.add("memory of an empty network namespace", count, "bytes",
                    [(before - bytes_in("meminfo", "MemAvailable")) / count])


def main():
    options = arguments(__doc__)
    figures = Figures(options)
    sizes = sizes_to_measure(options)
    allow_descriptors(sizes[-1])
    measure_namespaces(sizes[-1], figures)
    measure_idle(figures)
    for count in sizes:
        measure(count, figures)
    figures.write()


if __name__ == "__main__":
    main()

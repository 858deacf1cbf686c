"""A box that is left alone: how soon what was lost is back, and what watching costs.

KAVEL_BUILD=BUILD_DIR scripts/private bench/box_watch.py --out FILE [--quick | --brief]
"""

import os
import signal
import time

from box_dns import Client, Traffic
from box_world import (STORE, Controllers, Message, add_namespaces, agent, host_of, instance_pid, pid_file, run,
                       start_bare, stop_bare)
from pairs import Figures, arguments, seconds

FIRST = 1001
VPNS = 100
WATCHED = 10  # VPNs of which something is lost
ADDRESS = "192.0.2.1"
RATE = 1000  # queries per second
AROUND = 1.0  # seconds of queries before and after a restart of the agent
ANSWERS_AGAIN = 0.5  # aim, seconds
BACK = 2.0  # aim, seconds
POLL = 0.005


def message(vpn):
    return Message(vpn, dnshosts=[{"domain": host_of(vpn), "ip": ADDRESS}], dnsservers=[{"dnsserver": "10.1.0.53"}],
                   operation="reboot", persistentflag=False)


def until(condition):
    while not condition():
        time.sleep(POLL)


def answers_again(vpn, client):
    """Seconds from the end of the instance until it answers again."""
    def work():
        os.kill(instance_pid(vpn), signal.SIGKILL)
        client.until(ADDRESS)

    return seconds(work)


def starts_bare(vpn, client):
    """The same where somebody starts it at once."""
    pid = start_bare(vpn)
    client.until(ADDRESS)

    def work():
        os.kill(pid, signal.SIGKILL)
        os.waitpid(pid, 0)
        started.append(start_bare(vpn))
        client.until(ADDRESS)

    started = []
    took = seconds(work)
    stop_bare(started[0])
    return took


def rule_is_back(vpn):
    def has_rule():
        return "kavel_dns" in run("ip", "netns", "exec", f"vpn_{vpn}", "nft", "list", "tables").stdout

    run("ip", "netns", "exec", f"vpn_{vpn}", "nft", "flush", "ruleset")
    return seconds(lambda: until(has_rule))


def routes_are_back(vpn):
    def has_route():
        return "10.1.0.53" in run("ip", "-n", f"vpn_{vpn}", "route", "show", "table", "199").stdout

    run("ip", "-n", f"vpn_{vpn}", "route", "flush", "table", "199")
    return seconds(lambda: until(has_route))


def pid_file_is_back(vpn):
    pid_file(vpn).unlink()
    return seconds(lambda: until(pid_file(vpn).exists))


def measure_losses(figures, vpns, clients):
    bare = max(vpns) + 1
    add_namespaces([bare])
    files = f"/etc/kavel/dnsmasq/vpn_{bare}"
    run("cp", "-r", f"/etc/kavel/dnsmasq/vpn_{vpns[0]}", files)
    for path in ("dnsmasq.conf", "hosts"):
        run("sed", "-i", f"s/vpn_{vpns[0]}/vpn_{bare}/; s/vpn{vpns[0]}/vpn{bare}/", f"{files}/{path}")
    client = Client(bare, host_of(bare))
    figures.add("killed instance answers again", 1, "s",
                [answers_again(vpn, clients[vpn]) for vpn in vpns[:figures.pairs]],
                [starts_bare(bare, client) for _ in range(figures.pairs)], "kill, start, first answer",
                limit=ANSWERS_AGAIN)
    client.close()
    time.sleep(2)
    for what, lose in (("steering rule", rule_is_back), ("routes", routes_are_back), ("pid file", pid_file_is_back)):
        figures.add(f"{what} lost until back", 1, "s", [lose(vpn) for vpn in vpns[:figures.pairs]], limit=BACK)


def lost_by_restart(box, vpn):
    """Queries without an answer while the agent is restarted."""
    with Traffic(vpn, host_of(vpn), RATE) as traffic:
        time.sleep(AROUND)
        box.stop()
        box.start()
        time.sleep(AROUND)
    return traffic.lost


def main():
    options = arguments(__doc__)
    figures = Figures(options)
    count = WATCHED if options.brief else VPNS
    vpns = list(range(FIRST, FIRST + count))
    add_namespaces(vpns)
    for vpn in vpns[:WATCHED]:
        run("ip", "-n", f"vpn_{vpn}", "link", "add", "lan0", "type", "veth", "peer", "name", "lan1")
        for link in ("lan0", "lan1"):
            run("ip", "-n", f"vpn_{vpn}", "link", "set", link, "up")
        run("ip", "-n", f"vpn_{vpn}", "address", "add", "10.1.0.1/24", "dev", "lan0")
    lan = {vpn: {"lan": ["lan0"]} for vpn in vpns[:WATCHED]}
    with agent(vpns, lan, persistence=True, store=str(STORE)) as box:
        control = Controllers(4)
        control.send_all([message(vpn) for vpn in vpns])
        control.close()
        clients = {vpn: Client(vpn, host_of(vpn)) for vpn in vpns[:WATCHED]}
        for client in clients.values():
            client.until(ADDRESS)
        measure_losses(figures, vpns, clients)
        figures.add(f"queries lost at {RATE:,}/s, by a restart of the agent", count, "queries",
                    [lost_by_restart(box, vpns[1]) for _ in range(figures.pairs)], limit=0)
        for client in clients.values():
            client.close()
    figures.write()


if __name__ == "__main__":
    main()

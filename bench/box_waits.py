"""How long the messages of one VPN wait while another VPN's message is handled, whatever state that VPN is in.

KAVEL_BUILD=BUILD_DIR scripts/private bench/box_waits.py --out FILE [--quick | --brief]
"""

import contextlib
import os
import pathlib
import select
import signal
import socket
import time

from box_dns import inside
from box_world import (PROGRAM, Controllers, Message, add_namespaces, agent, contents_of, disk, hosts_message,
                       instance_pid, read_frame, replace_durably, result_of, run)
from pairs import Figures, arguments, seconds

SICK, ASKING = 1, 2  # the VPN that something is wrong with, and the VPN whose messages are timed
ADDRESS = "192.0.2.1"
CONNECTIONS = 20  # that a client holds open
WAIT = 0.3  # aim, seconds
WAIT_FULL = 1.0  # aim for a message that is full in every list
ASIDE = pathlib.Path("/run/aside-dnsmasq")
HANGING = pathlib.Path("/run/hanging-dnsmasq")

# Replaces dnsmasq: the instance of the sick VPN never comes up.
HANG = f"""#!/bin/sh
case "$*" in *vpn_{SICK}.pid*) exec sleep 5 ;; esac
exec {ASIDE} "$@"
"""


@contextlib.contextmanager
def hung_launch():
    ASIDE.touch()
    run("mount", "--bind", PROGRAM, ASIDE)
    HANGING.write_text(HANG)
    HANGING.chmod(0o755)
    run("mount", "--bind", HANGING, PROGRAM)
    try:
        yield
    finally:
        run("umount", PROGRAM)
        run("umount", ASIDE)


@contextlib.contextmanager
def stopped_instance():
    pid = instance_pid(SICK)
    os.kill(pid, signal.SIGSTOP)
    yield


@contextlib.contextmanager
def held_connections():
    with inside(SICK):
        held = [socket.create_connection(("127.0.0.1", 53)) for _ in range(CONNECTIONS)]
    time.sleep(0.1)  # until dnsmasq has a process for each
    try:
        yield
    finally:
        for connection in held:
            connection.close()


@contextlib.contextmanager
def taken_port():
    os.kill(instance_pid(SICK), signal.SIGKILL)
    time.sleep(0.1)
    with inside(SICK):
        taker = socket.socket()
    taker.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    taker.bind(("0.0.0.0", 53))
    taker.listen()
    try:
        yield
    finally:
        taker.close()


@contextlib.contextmanager
def nothing():
    yield


def full_message():
    """As many entries in each list as a message can have. One item more, and the forwards would count as none."""
    names = [f"{'n' * 50}{number}.vpn{SICK}.example" for number in range(1024)]
    hosts = [{"domain": name, "ip": f"10.1.{number >> 8}.{number & 255}"} for number, name in enumerate(names)]
    mail = [{"targetdomain": name, "sourcedomain": name, "preference": 10} for name in names[:128]]
    servers = [{"dnsserver": f"10.2.0.{number}"} for number in range(1, 9)]
    forwards = [{"domains": [f"d{part}.{name}" for part in range(8)],
                 "serverips": [f"10.3.{number >> 5}.{(number & 31) * 8 + part}" for part in range(8)]}
                for number, name in enumerate(names[:1023])]
    return Message(SICK, dnshosts=hosts, dnsmxhost=mail, dnsservers=servers, dnsproxies=forwards,
                   operation="reboot", persistentflag=False)


def longest_wait(sick, asking, one, other):
    """Sends `one` and, until it is answered, `other` again and again. The longest time in seconds for one of these."""
    sick.sendall(one.request)
    waited = []
    while not select.select([sick], [], [], 0)[0]:
        def message():
            asking.sendall(other.request)
            if result_of(read_frame(asking)) < 0:
                raise RuntimeError(f"vpn {other.vpn}: refused")

        waited.append(seconds(message))
    if result_of(read_frame(sick)) < 0:
        raise RuntimeError(f"vpn {one.vpn}: refused")
    return max(waited, default=0.0)


def measure(figures, what, state, one, limit):
    healthy = hosts_message(SICK, 1, ADDRESS, "reboot")
    other = hosts_message(ASKING, 20, ADDRESS, "reload")
    control = Controllers(2)
    waits = []
    for _ in range(figures.pairs):
        control.send(healthy)
        with state():
            waits.append(longest_wait(*control.peers, one, other))
    control.close()
    figures.add(f"wait for another VPN's message: {what}", 1, "s", waits, limit=limit)


def main():
    options = arguments(__doc__)
    figures = Figures(options)
    add_namespaces((SICK, ASKING))
    run("ip", "-n", f"vpn_{SICK}", "link", "add", "lan0", "type", "veth", "peer", "name", "lan1")
    for link in ("lan0", "lan1"):
        run("ip", "-n", f"vpn_{SICK}", "link", "set", link, "up")
    run("ip", "-n", f"vpn_{SICK}", "address", "add", "10.1.0.1/8", "dev", "lan0")
    with disk(), agent((SICK, ASKING), {SICK: {"lan": ["lan0"]}}):
        control = Controllers()
        for vpn in (SICK, ASKING):
            control.send(hosts_message(vpn, 20, ADDRESS, "reboot"))
        control.close()
        restart = hosts_message(SICK, 20, ADDRESS, "reboot")
        measure(figures, "restart", nothing, restart, WAIT)
        measure(figures, "restart of a stopped instance", stopped_instance, restart, WAIT)
        measure(figures, f"restart with {CONNECTIONS} held connections", held_connections, restart, WAIT)
        measure(figures, "restart while another program has the port", taken_port, restart, WAIT)
        measure(figures, "launch that hangs", hung_launch, restart, WAIT)
        measure(figures, "full in every list", nothing, full_message(), WAIT_FULL)
        files = contents_of(SICK)
        figures.add("durable write of a full message's files alone", 1, "s",
                    [seconds(lambda: replace_durably(SICK, files)) for _ in range(figures.pairs)])
    figures.write()


if __name__ == "__main__":
    main()

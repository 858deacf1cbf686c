"""What the tests of faults share: a client that asks all the time, and what a VPN looks like when it is right."""

import contextlib
import ctypes
import json
import os
import pathlib
import shutil
import signal
import socket
import sqlite3
import struct
import threading
import time

from box import (DNSMASQ, STORE, end, expect, instance_pid, instances, message, pid_file, run, tables, vpn_config,
                 wait_until)

ROOT = pathlib.Path(__file__).resolve().parents[2]
LIBC = ctypes.CDLL(None, use_errno=True)
CLONE_NEWNET = 0x40000000

# An address that no one has: only a query that the rule leads to the instance is answered.
ANYWHERE = "192.0.2.53"

# Intervals that let a test see in seconds what no event tells.
FAST = {"udpSeconds": 1, "tcpSeconds": 1, "upstreamSeconds": 1, "lookSeconds": 1}


def enter(namespace):
    """Leads the calling thread into a network namespace."""
    with open(f"/run/netns/{namespace}", encoding="ascii") as handle:
        if LIBC.setns(handle.fileno(), CLONE_NEWNET) != 0:
            raise OSError(ctypes.get_errno(), f"setns {namespace}")


def query(name, number):
    labels = b"".join(bytes([len(label)]) + label.encode() for label in name.split("."))
    return struct.pack("!6H", number, 0x0100, 1, 0, 0, 0) + labels + b"\0" + struct.pack("!2H", 1, 1)


def is_answered(name, number, server, timeout):
    """Asks once, from a new port: no earlier connection leads the query."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as peer:
        peer.settimeout(timeout)
        try:
            peer.connect((server, 53))
            peer.send(query(name, number))
            answer = peer.recv(512)
        except OSError:
            return False
    ident, flags, _, answers = struct.unpack("!4H", answer[:8])
    return ident == number and flags & 0xF == 0 and answers > 0


class Client:
    """A client of a VPN that asks for a name again and again while the context is open. `longest` is the longest time
    between two answers, in seconds; `lost` is how many queries got none within `timeout`."""

    def __init__(self, vpn=7, name=None, server=ANYWHERE, interval=0.02, timeout=0.1):
        self.vpn, self.name, self.server = vpn, name or f"nas.vpn{vpn}.example", server
        self.interval, self.timeout = interval, timeout
        self.longest = 0.0
        self.lost = 0
        self.last = time.monotonic()
        self.over = threading.Event()
        self.asking = threading.Thread(target=self.ask)

    def ask(self):
        enter(f"client_{self.vpn}")
        number = 0
        while not self.over.wait(self.interval):
            number = (number + 1) % 0x10000
            if is_answered(self.name, number, self.server, self.timeout):
                now = time.monotonic()
                self.longest, self.last = max(self.longest, now - self.last), now
            else:
                self.lost += 1

    def __enter__(self):
        began = self.last
        self.asking.start()
        wait_until(lambda: self.last > began, f"an answer to the client of VPN {self.vpn}")
        self.longest, self.lost = 0.0, 0
        return self

    def __exit__(self, kind, *_):
        """Waits for one more answer, if what the client saw was right until now."""
        began = time.monotonic()
        try:
            if kind is None:
                wait_until(lambda: self.last > began, f"an answer to the client of VPN {self.vpn} in the end", 90)
        finally:
            self.over.set()
            self.asking.join()


def shown(vpn, *words):
    listed = run("ip", "-n", f"vpn_{vpn}", "-json", *words, check=False)
    return json.loads(listed.stdout or "[]") if listed.returncode == 0 else []  # there is no such table


def row(vpn=7):
    try:
        with contextlib.closing(sqlite3.connect(f"file:{STORE}?mode=ro", uri=True)) as store:
            return next(iter(store.execute("SELECT conf FROM cpe_dnsmasq WHERE vpn_id = ?", (vpn,))), None)
    except sqlite3.OperationalError:
        return None  # there is no store


def content_of(path):
    with contextlib.suppress(OSError):
        return (path.stat().st_mode & 0o777, path.read_text() if path.is_file() else None)
    return None


def is_served_by_one(vpn):
    with contextlib.suppress(OSError, ValueError):
        pid = instance_pid(vpn)
        return instances(vpn) == [pid] and os.stat(f"/proc/{pid}/ns/net").st_ino == os.stat(
            f"/run/netns/vpn_{vpn}").st_ino and pid_file(vpn).stat().st_uid == 0
    return False


def snapshot(vpn=7):
    """All that makes a VPN's service. A snapshot while the service is right equals each later one while it is right."""
    directory = DNSMASQ / f"vpn_{vpn}"
    namespace = f"vpn_{vpn}"
    return {
        "files": {str(path.relative_to(directory)): content_of(path) for path in [directory, *directory.rglob("*")]},
        "routes": sorted((route["dst"], route.get("gateway"), route["dev"])
                         for route in shown(vpn, "route", "show", "table", "199")),
        "policy": shown(vpn, "rule", "show"),
        "ruleset": run("ip", "netns", "exec", namespace, "nft", "--stateless", "list", "ruleset", check=False).stdout,
        "loopback": ["UP" in link["flags"] for link in shown(vpn, "link", "show", "dev", "lo")],
        "one instance": is_served_by_one(vpn),
        "row": row(vpn),
    }


def differs(before, vpn=7):
    now = snapshot(vpn)
    return {key: (before[key], now[key]) for key in before if before[key] != now[key]}


def wait_until_right(before, vpn=7, seconds=15.0):
    """Waits until the VPN looks as in the snapshot `before`. Returns the seconds that this took."""
    began = time.monotonic()
    deadline = began + seconds
    while True:
        difference = differs(before, vpn)
        if not difference:
            return time.monotonic() - began
        assert time.monotonic() < deadline, f"timeout after {seconds} s: {difference}"
        time.sleep(0.02)


def ip(*words, vpn=7):
    run("ip", "-n", f"vpn_{vpn}", *words)


def nft(*words, vpn=7):
    run("ip", "netns", "exec", f"vpn_{vpn}", "nft", *words)


def flush_chain():
    (table,) = tables()
    nft("flush", "table", "inet", table)


def delete_table():
    (table,) = tables()
    nft("delete", "table", "inet", table)


def directory(vpn=7):
    return DNSMASQ / f"vpn_{vpn}"


def edit_hosts():
    (directory() / "hosts").write_text("192.168.7.66 nas.vpn7.example\n")


def forget_row():
    with contextlib.closing(sqlite3.connect(STORE)) as store, store:
        store.execute("DELETE FROM cpe_dnsmasq WHERE vpn_id = 7")


def remove_store():
    for path in STORE.parent.glob("agent.db*"):
        path.unlink()


def kept(vpn=7, **changes):
    return message(vpn, persistentflag=True, **changes)


def configure(box, *vpns, watch=None, **changes):
    vpns = vpns or (vpn_config(7), vpn_config(8))
    box.configure(*vpns, persistence=True, store=str(STORE), **({"watch": watch} if watch else {}), **changes)


def serve(box, *vpns, watch=None):
    """Starts the agent with a store and with these intervals; VPN 7 is in force. Returns the box."""
    shutil.rmtree(STORE.parent, ignore_errors=True)
    configure(box, *vpns, watch=watch)
    box.start().apply(kept(7))
    expect("192.168.7.10", "nas.vpn7.example")
    expect("192.168.7.10", "nas.vpn7.example", server=ANYWHERE)
    return box


def log_since(box, mark):
    return box.log()[mark:]


def kill(pid):
    os.kill(pid, signal.SIGKILL)


def hang_up(box):
    """SIGHUP; returns when the agent has read its configuration. Returns what it logged about it."""
    mark = len(box.log())
    box.agent.send_signal(signal.SIGHUP)
    wait_until(lambda: "configuration read again" in log_since(box, mark) or
               "the configuration stays as it was" in log_since(box, mark), "the configuration is read")
    return log_since(box, mark)


def end_agent(box, number=signal.SIGKILL):
    box.agent.send_signal(number)
    box.agent.wait(timeout=10)
    box.agent = None


def remove_surroundings(vpn):
    """What `lab up` made."""
    for upstream in pathlib.Path("/run/lab").glob(f"*_{vpn}.pid"):
        end(int(upstream.read_text()))
        upstream.unlink()
    for pid in instances(vpn):
        end(pid)
    for name in (f"vpn_{vpn}", f"client_{vpn}", f"upstream_{vpn}"):
        run("ip", "netns", "delete", name, check=False)


def connect_namespace(vpn):
    """Makes the links of a new namespace, as `lab up` does; the other ends of the old ones must be gone."""
    name, client, upstream = f"vpn_{vpn}", f"client_{vpn}", f"upstream_{vpn}"
    for ours, address, peer, theirs, addresses in (
            ("lan0", f"10.{vpn}.0.1/24", upstream, "eth0", [f"10.{vpn}.0.53/24", f"10.{vpn}.0.54/24"]),
            ("lan1", f"192.168.{vpn}.1/24", client, "eth0", [f"192.168.{vpn}.100/24"]),
            ("wan0", "203.0.113.1/24", upstream, "eth1", ["203.0.113.53/24"])):
        run("ip", "-n", name, "link", "add", ours, "type", "veth", "peer", "name", theirs, "netns", peer)
        run("ip", "-n", name, "address", "add", address, "dev", ours)
        for one in addresses:
            run("ip", "-n", peer, "address", "add", one, "dev", theirs)
        run("ip", "-n", name, "link", "set", ours, "up")
        run("ip", "-n", peer, "link", "set", theirs, "up")
    run("ip", "-n", client, "route", "replace", "default", "via", f"192.168.{vpn}.1")

"""Clients that ask the DNS instances from inside their namespaces."""

import contextlib
import ctypes
import multiprocessing
import os
import select
import socket
import struct
import time

CLONE_NEWNET = 0x40000000
SERVER = ("127.0.0.1", 53)
RETRY = 0.0005  # until the next question to a port that is closed
PATIENCE = 0.002  # for an answer, before the question is asked again
LAST_ANSWERS = 2.0  # for those that are under way when no more is asked

_libc = ctypes.CDLL(None, use_errno=True)


def _enter(descriptor):
    if _libc.setns(descriptor, CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), "setns")


@contextlib.contextmanager
def inside(vpn):
    """The calling thread, and what it starts, is in the VPN's network namespace."""
    home = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
    there = os.open(f"/run/netns/vpn_{vpn}", os.O_RDONLY)
    try:
        _enter(there)
        yield
    finally:
        _enter(home)
        os.close(there)
        os.close(home)


def _udp(vpn):
    with inside(vpn):
        return socket.socket(socket.AF_INET, socket.SOCK_DGRAM)


def _question(name, ident):
    labels = b"".join(bytes([len(label)]) + label.encode() for label in name.split("."))
    return struct.pack("!6H", ident, 0x0100, 1, 0, 0, 0) + labels + b"\0" + struct.pack("!2H", 1, 1)


def _address(reply):
    """The address in a reply to a question of ours: without extensions it stands at the end. None without one."""
    return socket.inet_ntoa(reply[-4:]) if struct.unpack_from("!H", reply, 6)[0] == 1 else None


class Client:
    """Asks one VPN's instance for one name."""

    def __init__(self, vpn, name):
        self.name = name
        self.ident = 0
        self.socket = _udp(vpn)
        self.socket.connect(SERVER)
        self.readable = select.poll()
        self.readable.register(self.socket, select.POLLIN)

    def close(self):
        self.socket.close()

    def ask(self):
        """The address that comes back; None when the port is closed, the name unknown or no answer there in time."""
        self.ident = (self.ident + 1) & 0xFFFF
        try:
            self.socket.send(_question(self.name, self.ident))
            while self.readable.poll(PATIENCE * 1000):
                reply = self.socket.recv(512)
                if reply[:2] == self.ident.to_bytes(2, "big"):
                    return _address(reply)
        except ConnectionRefusedError:
            time.sleep(RETRY)
        return None

    def until(self, address, within=60):
        """Asks until the answer is `address`; the longest time for which there was no answer at all."""
        began = heard = time.perf_counter()
        longest = 0.0
        while True:
            answer = self.ask()
            now = time.perf_counter()
            if answer is not None:
                longest, heard = max(longest, now - heard), now
            if answer == address:
                return longest
            if now - began > within:
                raise TimeoutError(f"{self.name}: {answer} instead of {address}")


class Traffic:
    """A process of its own that asks at a steady rate, each question once, for as long as the block lasts."""

    def __init__(self, vpn, name, rate):
        self.orders, orders = multiprocessing.Pipe()
        self.process = multiprocessing.Process(target=_traffic, args=(vpn, name, rate, orders))
        self.sent = self.lost = 0

    def __enter__(self):
        self.process.start()
        self.orders.recv()
        return self

    def __exit__(self, *_):
        self.orders.send("enough")
        self.sent, self.lost = self.orders.recv()
        self.process.join()


def _traffic(vpn, name, rate, orders):
    peer = _udp(vpn)  # not connected: a closed port loses the question and says nothing
    waiting = set()
    sent = 0
    began = time.perf_counter()
    orders.send("asking")
    while not orders.poll():
        _take_answers(peer, waiting, began + sent / rate)
        ident = sent & 0xFFFF
        peer.sendto(_question(name, ident), SERVER)
        waiting.add(ident)
        sent += 1
    _take_answers(peer, waiting, time.perf_counter() + LAST_ANSWERS)
    orders.send((sent, len(waiting)))


def _take_answers(peer, waiting, until):
    """Returns at the given time, or when nothing is waited for and the time has come."""
    while (left := until - time.perf_counter()) > 0:
        if select.select([peer], [], [], left)[0]:
            waiting.discard(int.from_bytes(peer.recv(512)[:2], "big"))

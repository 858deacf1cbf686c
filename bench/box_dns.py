"""DNS clients inside the namespaces of the VPNs."""

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
RETRY = 0.0005  # seconds before the next query, if the port is closed
TIMEOUT = 0.002  # seconds to wait for an answer before the next query
LAST_ANSWERS = 2.0  # seconds to wait for pending answers after the last query

_libc = ctypes.CDLL(None, use_errno=True)


def _enter(descriptor):
    if _libc.setns(descriptor, CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), "setns")


@contextlib.contextmanager
def inside(vpn):
    """Inside the block, the calling thread and the processes that it starts are in the VPN's network namespace."""
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


def _query(name, ident):
    labels = b"".join(bytes([len(label)]) + label.encode() for label in name.split("."))
    return struct.pack("!6H", ident, 0x0100, 1, 0, 0, 0) + labels + b"\0" + struct.pack("!2H", 1, 1)


def _address(reply):
    """The address in a reply, None without one. The queries have no extensions, so the address is at the end."""
    return socket.inet_ntoa(reply[-4:]) if struct.unpack_from("!H", reply, 6)[0] == 1 else None


class Client:
    """Queries the instance of one VPN for one name."""

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
        """The address in the answer; None if the port is closed, the name is unknown or no answer arrives in time."""
        self.ident = (self.ident + 1) & 0xFFFF
        try:
            self.socket.send(_query(self.name, self.ident))
            while self.readable.poll(TIMEOUT * 1000):
                reply = self.socket.recv(512)
                if reply[:2] == self.ident.to_bytes(2, "big"):
                    return _address(reply)
        except ConnectionRefusedError:
            time.sleep(RETRY)
        return None

    def until(self, address, within=60):
        """Queries until the answer is `address`. Returns the longest time in seconds without any answer.

        Throws TimeoutError after `within` seconds."""
        start = last = time.perf_counter()
        longest = 0.0
        while True:
            answer = self.ask()
            now = time.perf_counter()
            if answer is not None:
                longest, last = max(longest, now - last), now
            if answer == address:
                return longest
            if now - start > within:
                raise TimeoutError(f"{self.name}: {answer} instead of {address}")


class Traffic:
    """A separate process that sends queries at a steady rate until the block ends. It does not repeat a query."""

    def __init__(self, vpn, name, rate):
        self.pipe, remote = multiprocessing.Pipe()
        self.process = multiprocessing.Process(target=_traffic, args=(vpn, name, rate, remote))
        self.sent = self.lost = 0

    def __enter__(self):
        self.process.start()
        self.pipe.recv()
        return self

    def __exit__(self, *_):
        self.pipe.send("stop")
        self.sent, self.lost = self.pipe.recv()
        self.process.join()


def _traffic(vpn, name, rate, pipe):
    peer = _udp(vpn)  # not connected: a closed port loses the query without an error
    pending = set()
    sent = 0
    start = time.perf_counter()
    pipe.send("started")
    while not pipe.poll():
        _receive_answers(peer, pending, start + sent / rate)
        ident = sent & 0xFFFF
        peer.sendto(_query(name, ident), SERVER)
        pending.add(ident)
        sent += 1
    _receive_answers(peer, pending, time.perf_counter() + LAST_ANSWERS)
    pipe.send((sent, len(pending)))


def _receive_answers(peer, pending, until):
    """Removes answered queries from `pending` until the given time."""
    while (left := until - time.perf_counter()) > 0:
        if select.select([peer], [], [], left)[0]:
            pending.discard(int.from_bytes(peer.recv(512)[:2], "big"))

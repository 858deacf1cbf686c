"""Sends queries for one name at a fixed rate, until the standard input ends. Then prints how many were sent, how many got no
answer, and the longest time without an answer in seconds, as JSON."""

import argparse
import json
import os
import resource
import select
import socket
import struct
import sys
import time

TIMEOUT = 2.0


def query(number, name):
    labels = b"".join(bytes([len(label)]) + label.encode() for label in name.split("."))
    return struct.pack("!6H", number, 0x0100, 1, 0, 0, 0) + labels + struct.pack("!BHH", 0, 1, 1)


def is_answer(packet):
    """An answer has no error, and at least one record."""
    if len(packet) < 12:
        return False
    _, flags, _, records = struct.unpack("!4H", packet[:8])
    return flags & 0x8000 != 0 and flags & 0xF == 0 and records > 0


class Client:
    """Each query has a socket of its own: it is a new connection for the packet filter, too."""

    def __init__(self, server, name, rate):
        self.server, self.interval = (server, 53), 1 / rate
        self.packet = query(1, name)
        self.pending = {}  # socket and time of each query without an answer, by descriptor, in the order of the time
        self.poll = select.epoll()
        self.sent = self.lost = 0
        self.longest, self.answered = 0.0, time.monotonic()

    def send(self):
        peer = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.pending[peer.fileno()] = peer, time.monotonic()
        self.poll.register(peer, select.EPOLLIN)
        self.sent += 1
        peer.connect(self.server)
        peer.send(self.packet)

    def receive(self, descriptor):
        peer, _ = self.pending[descriptor]
        try:
            packet = peer.recv(4096)
        except OSError:  # nobody listens
            packet = b""
        if is_answer(packet):
            now = time.monotonic()
            self.longest, self.answered = max(self.longest, now - self.answered), now
        else:
            self.lost += 1
        self.forget(descriptor)

    def forget(self, descriptor):
        peer, _ = self.pending.pop(descriptor)
        self.poll.unregister(peer)
        peer.close()

    def give_up(self):
        while self.pending:
            descriptor, (_, when) = next(iter(self.pending.items()))
            if time.monotonic() - when < TIMEOUT:
                return
            self.forget(descriptor)
            self.lost += 1

    def run(self, control):
        self.poll.register(control, select.EPOLLIN)
        due = time.monotonic()
        is_over = False
        while not is_over or self.pending:
            if not is_over and time.monotonic() >= due:
                self.send()
                due += self.interval
            for descriptor, _ in self.poll.poll(0.1 if is_over else max(0.0, due - time.monotonic())):
                if descriptor != control:
                    self.receive(descriptor)
                elif not os.read(control, 1):
                    self.poll.unregister(control)
                    is_over = True
            self.give_up()
        return {"sent": self.sent, "lost": self.lost, "longest": max(self.longest, time.monotonic() - self.answered)}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("server")
    parser.add_argument("name")
    parser.add_argument("rate", type=float, help="queries per second")
    options = parser.parse_args()
    resource.setrlimit(resource.RLIMIT_NOFILE, (resource.getrlimit(resource.RLIMIT_NOFILE)[1],) * 2)
    print(json.dumps(Client(options.server, options.name, options.rate).run(sys.stdin.fileno())))


if __name__ == "__main__":
    main()

"""A broker for benchmarks: mosquitto with the configuration and the certificates of examples/fleet, and its own tools.

Runs inside scripts/private, on a real file system inside box_world.disk(): what the broker saves has its real cost.
"""

import collections
import concurrent.futures
import contextlib
import os
import pathlib
import select
import signal
import socket
import ssl
import subprocess
import time

from box_world import bytes_in, run

EXAMPLES = pathlib.Path(__file__).resolve().parents[1] / "examples/fleet"
CERTIFICATES = pathlib.Path("/run/fleet")
CONFIGURATION = pathlib.Path("/etc/mosquitto/mosquitto.conf")
STORE = pathlib.Path("/var/lib/mosquitto/mosquitto.db")
LOG = pathlib.Path("/run/mosquitto.log")
HOST = "localhost"
PORTS = {"box": 8883, "user": 8884}
MARK = "kavel-fleet/monitor/mark"  # retained: who gets it has got all retained messages of his other topics before
WORKERS = 2
POLL = 0.001
WITHIN = 120  # seconds
# How often the broker saves what is retained: as it is shipped, and as it is meant for large fleets.
SAVES = {"each turn": {}, "each 30 s": {"\nautosave_on_changes true\n": "\nautosave_on_changes false\n",
                                        "\nautosave_interval 1\n": "\nautosave_interval 30\n"}}


class Peer:
    """Who connects: a box or a user, with a certificate of this name."""

    def __init__(self, kind, name, key=None):
        self.kind, self.name, self.port = kind, name, PORTS[kind]
        self.ca = CERTIFICATES / "fleet-ca/ca.pem"
        self.certificate = CERTIFICATES / kind / f"{name}.pem"
        self.key = CERTIFICATES / kind / f"{key or name}.key"

    def words(self):
        """The arguments for a tool of mosquitto."""
        return [str(word) for word in ("-h", HOST, "-p", self.port, "-V", 5, "-q", 1, "--cafile", self.ca, "--cert",
                                       self.certificate, "--key", self.key)]

    def endpoint(self):
        """The member `broker` of link.json."""
        return {"host": HOST, "port": self.port, "ca": str(self.ca), "certificate": str(self.certificate),
                "key": str(self.key)}

    def context(self):
        context = ssl.create_default_context(cafile=self.ca)
        context.load_cert_chain(self.certificate, self.key)
        return context


CONTROLLER = Peer("user", "controller")
MONITOR = Peer("user", "monitor")
FLOOR = Peer("box", "floor")


def box_peer(name):
    """A box other than FLOOR: it has the same key."""
    return Peer("box", name, FLOOR.name)


def make_certificates(boxes):
    """All boxes have the key of one: the broker tells them apart by their names, and a key takes the longest."""
    run(EXAMPLES / "ca", "init", CERTIFICATES)
    run(EXAMPLES / "ca", "broker", CERTIFICATES, HOST)
    run(EXAMPLES / "ca", "user", CERTIFICATES, CONTROLLER.name, MONITOR.name)
    run(EXAMPLES / "ca", "box", CERTIFICATES, FLOOR.name)
    ca = CERTIFICATES / "boxes-ca"
    told = {**os.environ, "CA": str(ca), "ALTERNATIVES": "DNS:none"}

    def make(name):
        run("openssl", "req", "-x509", "-config", ca / "openssl.cnf", "-CA", ca / "ca.pem", "-CAkey", ca / "ca.key",
            "-key", FLOOR.key, "-subj", f"/CN={name}", "-extensions", "as_client", "-days", 30,
            "-out", box_peer(name).certificate, env=told)

    with concurrent.futures.ThreadPoolExecutor(WORKERS) as pool:
        list(pool.map(make, boxes))
    run(EXAMPLES / "install-broker", CERTIFICATES, HOST)


def configure(saves):
    """Installs the shipped configuration; it saves as SAVES has it under this name."""
    text = (EXAMPLES / "mosquitto.conf").read_text()
    for shipped, changed in SAVES[saves].items():
        if text.count(shipped) != 1:
            raise RuntimeError(f"mosquitto.conf: not once: {shipped.strip()}")
        text = text.replace(shipped, changed)
    CONFIGURATION.write_text(text)


class Broker:
    def __init__(self):
        self.process = None

    def start(self):
        """Returns when both listeners accept."""
        with LOG.open("a") as log:
            self.process = subprocess.Popen(["mosquitto", "-c", CONFIGURATION], stdout=log, stderr=log)
        for port in PORTS.values():
            while not accepts(port):
                self.expect_running()
                time.sleep(POLL)

    def stop(self):
        """It saves what is retained."""
        self.process.terminate()
        self.process.wait()

    def processor(self):
        """Seconds of a processor since it has started."""
        return processor_time(self.process.pid)

    def memory(self):
        return bytes_in(f"{self.process.pid}/smaps_rollup", "Pss:")

    def save(self):
        """Saves what is retained once more. Seconds; it serves nobody meanwhile."""
        def saved():
            return STORE.exists() and (STORE.stat().st_ino, STORE.stat().st_mtime_ns)

        with Subscriber(MONITOR, MARK) as watch:
            watch.skip_retained(MARK)  # it has started: before that, the signal ends it
        before = saved()
        self.process.send_signal(signal.SIGUSR1)
        start = time.perf_counter()
        accepts(PORTS["box"])  # the signal alone does not wake it
        while saved() == before:
            self.expect_running()
            time.sleep(POLL)
        return time.perf_counter() - start

    def expect_running(self):
        if self.process.poll() is not None:
            raise RuntimeError(f"mosquitto ended with {self.process.returncode}: {LOG.read_text()[-1000:]}")


def accepts(port):
    with socket.socket() as peer:
        return peer.connect_ex(("127.0.0.1", port)) == 0


def processor_time(pid):
    """Seconds that a process with one thread has run; finer than /proc/PID/stat."""
    return int(pathlib.Path(f"/proc/{pid}/schedstat").read_text().split()[0]) / 1e9


def sent_bytes():
    """Of all connections here, with the headers: everything goes over lo."""
    (line,) = [line for line in pathlib.Path("/proc/net/dev").read_text().splitlines() if "lo:" in line]
    return int(line.split()[9])


@contextlib.contextmanager
def broker(saves):
    """A broker with nothing retained but the mark."""
    STORE.unlink(missing_ok=True)
    configure(saves)
    one = Broker()
    one.start()
    try:
        publish(MONITOR, MARK, b"here", retained=True)
        yield one
    finally:
        one.stop()


def publish(peer, topic, payload, retained):
    """Publishes with mosquitto's tool. Returns when the broker has acknowledged it."""
    subprocess.run(["mosquitto_pub", *peer.words(), *["-r"] * retained, "-t", topic, "-s"], input=payload, check=True)


class Lines:
    """Messages for one topic, published by mosquitto's tool at full speed: one line each."""

    def __init__(self, peer, topic, line, count):
        self.path = pathlib.Path(f"/run/lines-{peer.name}")
        self.path.write_text(f"{line}\n" * count)
        self.count = count
        self.shell = subprocess.Popen(["sh", "-c", f"echo first; read go; exec cat {self.path}"], stdin=subprocess.PIPE,
                                      stdout=subprocess.PIPE)
        self.publisher = subprocess.Popen(["mosquitto_pub", *peer.words(), "-r", "-t", topic, "-l"],
                                          stdin=self.shell.stdout)
        self.shell.stdout.close()

    def __enter__(self):
        """It is connected when its first message has come."""
        return self

    def __exit__(self, *_):
        for process in (self.shell, self.publisher):
            process.kill()
            process.wait()
        self.shell.stdin.close()

    def start(self):
        self.shell.stdin.write(b"go\n")
        self.shell.stdin.flush()


class Subscriber:
    """Mosquitto's tool. It has subscribed when it has told the retained message of the last topic."""

    def __init__(self, peer, *topics):
        words = [word for topic in topics for word in ("-t", topic)]
        self.process = subprocess.Popen(["mosquitto_sub", *peer.words(), *words, "-F", "%r %t %p"],
                                        stdout=subprocess.PIPE)
        self.lines = collections.deque()
        self.rest = b""

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        self.process.stdout.close()

    def next(self, within=WITHIN):
        """The next message: whether it was retained before, its topic, its payload. Throws TimeoutError."""
        while not self.lines:
            if not select.select([self.process.stdout], [], [], within)[0]:
                raise TimeoutError(f"no message within {within} s")
            more = os.read(self.process.stdout.fileno(), 1 << 20)
            if not more:
                raise RuntimeError("mosquitto_sub ended")
            *lines, self.rest = (self.rest + more).split(b"\n")
            self.lines.extend(lines)
        retained, topic, payload = self.lines.popleft().decode().split(" ", 2)
        return retained == "1", topic, payload

    def skip_retained(self, last):
        """Returns after the retained message of this topic."""
        while self.next()[:2] != (True, last):
            pass
        return self

    def until_all(self, boxes, is_wanted):
        """Returns when a wanted message of each box has come."""
        missing = set(boxes)
        while missing:
            _, topic, payload = message = self.next()
            if is_wanted(*message):
                missing.discard(topic.split("/")[1])

    def until_so_many(self, count, box):
        """Returns when so many messages for topics of this box have come."""
        while count > 0:
            count -= self.next()[1].split("/")[1] == box

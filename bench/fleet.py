"""Boxes at a broker: a message until its report, a change to all boxes, a restart of the broker, memory.

One box is real: vqagent, dnsmasq, vqlink. Many boxes are one process, bench_fleet_boxes: the link's code and a
connection for each, and an agent that answers at once.

KAVEL_BUILD=BUILD_DIR scripts/private bench/fleet.py --out FILE [--quick | --brief]
"""

import contextlib
import itertools
import json
import pathlib
import queue
import resource
import socket
import statistics
import subprocess
import time

from paho.mqtt import client as mqtt
from paho.mqtt.packettypes import PacketTypes
from paho.mqtt.properties import Properties

from bench_broker import (CONTROLLER, FLOOR, HOST, MARK, MONITOR, SAVES, STORE, WITHIN, Lines, Subscriber, box_peer,
                          broker, make_certificates, processor_time, publish, sent_bytes)
from box_dns import Client
from box_world import (BUILD, Controllers, Message, add_namespaces, agent, bytes_in, disk, host_of, hosts_message,
                       read_varint, run)
from pairs import Figures, arguments, interleaved, seconds

SIZES = (100, 300, 1000)
BRIEF_SIZES = (10,)
VPN = 1
HOSTS = 20
ADDRESSES = ("192.0.2.1", "192.0.2.2")
REAL = "branch"  # the name of the box with a real agent
LINK, FLEET = pathlib.Path("/etc/kavel/link.json"), pathlib.Path("/etc/kavel/fleet.json")
LEAST_FOR_MEMORY = 300  # boxes; with fewer, what the broker keeps free counts for more
OTHER_DESCRIPTORS = 256
ANSWERS = box_peer("answers")
FLOOR_CONNECTIONS = 50
IDLE = 60  # seconds
SETTLED = 5  # seconds; the loss of a shorter connection makes the next pause longer
ONE_BOX = 1.5  # aim
CHANGE = 1.5  # aim
CONNECTION = 2  # aim
LINK_MEMORY = 4 << 20  # aim, bytes
LARGE = 1_600_000  # bytes, of a large message
FORWARDS = 8192  # domains of a message at most
EACH_TURN, BY_TIME = SAVES
TOOLS = "the broker with its own tools: as many messages there and reports back, over one connection each"
ONE_BOX_FLOOR = "there and back by the broker's own tools, and the message over the agent's socket"
TOOL_CONNECTION = "mosquitto_sub that connects and takes one retained message"


def packed(one):
    """The message of a request to the agent."""
    _, at = read_varint(one.request, 7)
    return one.request[at:]


def desired(box):
    return f"kavel/{box}/desired/{VPN}"


def reported(box):
    return f"kavel/{box}/reported/{VPN}"


class Fleet:
    """A controller in this process. Each of its publications has a higher revision than the one before."""

    def __init__(self):
        self.revisions = itertools.count(1)
        self.heard = queue.SimpleQueue()
        self.client = mqtt.Client("bench", protocol=mqtt.MQTTv5)
        self.client.tls_set_context(CONTROLLER.context())
        self.client.on_message = lambda client, data, message: self.heard.put(message)
        subscribed = queue.SimpleQueue()
        self.client.on_subscribe = lambda *told: subscribed.put(told)
        self.client.connect(HOST, CONTROLLER.port)
        self.client.socket().setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.client.loop_start()
        self.client.subscribe([(f"kavel/{box}/reported/+", 1) for box in (REAL, ANSWERS.name)])
        subscribed.get(timeout=WITHIN)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.client.disconnect()
        self.client.loop_stop()

    def publish(self, boxes, payload):
        """Publishes to all these boxes at full speed. Returns the revision."""
        revision = next(self.revisions)
        properties = Properties(PacketTypes.PUBLISH)
        properties.UserProperty = [("revision", str(revision)), ("platform", "cpe")]
        for box in boxes:
            self.client.publish(desired(box), payload, qos=1, retain=True, properties=properties)
        return revision

    def until_reported(self, box, is_wanted=lambda report: True):
        """The report, as bytes."""
        while True:
            message = self.heard.get(timeout=WITHIN)
            if message.topic == reported(box) and not message.retain and is_wanted(message.payload):
                return message.payload


def is_report(revision):
    """Whether a report is one of this revision, and the message was applied. Throws if it was refused."""
    def judge(payload):
        report = json.loads(payload)
        if report.get("revision") != revision:
            return False
        if report["result"] != "applied" or "problem" in report:
            raise RuntimeError(f"not applied: {report}")
        return True

    return judge


@contextlib.contextmanager
def link():
    """A running vqlink of the real box. Yields its pid when it is online and reaches the agent."""
    LINK.write_text(json.dumps({"box": REAL, "broker": box_peer(REAL).endpoint(), "log": "notice"}))
    with Subscriber(MONITOR, f"kavel/{REAL}/online", MARK) as watch, open("/run/link.log", "w") as log:
        watch.skip_retained(MARK)
        process = subprocess.Popen([BUILD / "vqlink", "--config", LINK], stdout=log, stderr=log)
        try:
            watch.until_all([REAL], lambda _, topic, payload: json.loads(payload).get("agent") is True)
            yield process.pid
        finally:
            process.terminate()
            process.wait()


@contextlib.contextmanager
def echo(report):
    """Mosquitto's tools: they answer each message for one box with a report of another."""
    publish(CONTROLLER, desired(FLOOR.name), b"here", retained=True)
    with contextlib.ExitStack() as started:
        receiver = subprocess.Popen(["mosquitto_sub", *FLOOR.words(), "-t", desired(FLOOR.name), "-F", report],
                                    stdout=subprocess.PIPE)
        sender = subprocess.Popen(["mosquitto_pub", *ANSWERS.words(), "-r", "-t", reported(ANSWERS.name), "-l"],
                                  stdin=receiver.stdout)
        for process in (sender, receiver):
            started.callback(process.wait)
            started.callback(process.kill)
        receiver.stdout.close()
        yield


def measure_one_box(figures, repeats):
    """From a publication until the report is back."""
    messages = [hosts_message(VPN, HOSTS, address, "reload") for address in ADDRESSES]
    turns = itertools.cycle(messages)

    def ours():
        payload = packed(next(turns))
        return seconds(lambda: fleet.until_reported(REAL, is_report(fleet.publish([REAL], payload))))

    def floor():
        one = next(turns)
        there = seconds(lambda: (fleet.publish([FLOOR.name], packed(one)), fleet.until_reported(ANSWERS.name)))
        return there + seconds(lambda: controllers.send(one))

    def mean(once):
        return lambda: statistics.mean(once() for _ in range(repeats))

    with agent((VPN,)), link() as pid, Fleet() as fleet:
        controllers = Controllers()
        controllers.send(hosts_message(VPN, HOSTS, ADDRESSES[0], "reboot"))
        client = Client(VPN, host_of(VPN))
        client.until(ADDRESSES[0])
        figures.add("vqlink: PSS, idle", 1, "bytes", [bytes_in(f"{pid}/smaps_rollup", "Pss:")])
        figures.add("vqlink: private memory, idle", 1, "bytes", [bytes_in(f"{pid}/smaps_rollup", "Private_")],
                    limit=LINK_MEMORY)
        report = fleet.until_reported(REAL, is_report(fleet.publish([REAL], packed(messages[0]))))
        with echo(report.decode()):
            fleet.until_reported(ANSWERS.name)  # of the retained message
            each = interleaved(figures.pairs, mean(ours), mean(floor))
        figures.add("publication to report, reload, by hosts", HOSTS, "s", *each, ONE_BOX_FLOOR, target=ONE_BOX)
        measure_large(figures, fleet, pid)
        controllers.close()
        client.close()


def large_message():
    """Forwards with the longest names, as many as a message may have."""
    def name(number):
        return ".".join([f"{number:05}", "a" * 60, "b" * 60, "c" * (LARGE // FORWARDS - 130)])

    proxies = [{"domains": [name(8 * item + entry) for entry in range(8)], "serverips": ["10.1.0.53"]}
               for item in range(FORWARDS // 8)]
    return Message(VPN, dnshosts=[], dnsservers=[{"dnsserver": "10.1.0.53"}], dnsproxies=proxies, operation="reboot",
                   persistentflag=False)


def measure_large(figures, fleet, pid):
    """What the link keeps after a large message."""
    payload = packed(large_message())

    def work():
        fleet.until_reported(REAL, is_report(fleet.publish([REAL], payload)))

    figures.add("publication to report, restart, by bytes", len(payload), "s", [seconds(work)])
    for what, field in (("PSS", "Pss:"), ("private memory", "Private_")):
        figures.add(f"vqlink: {what}, after a large message, by bytes", len(payload), "bytes",
                    [bytes_in(f"{pid}/smaps_rollup", field)])
    figures.add("vqlink: peak memory, after a large message, by bytes", len(payload), "bytes",
                [bytes_in(f"{pid}/status", "VmHWM:")])


class Boxes:
    """Many boxes in one process."""

    def __init__(self, names):
        self.process = subprocess.Popen([
            BUILD / "bench_fleet_boxes", "--host", HOST, "--port", str(FLOOR.port), "--ca", FLOOR.ca,
            "--key", FLOOR.key, "--certificates", FLOOR.certificate.parent, *names])

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait()

    def processor(self):
        return processor_time(self.process.pid)

    def memory(self):
        return bytes_in(f"{self.process.pid}/smaps_rollup", "Pss:")


class Costs:
    """What happens while a piece of work is done: processor time of the broker and of the boxes, and bytes, for one of
    `count`."""

    def __init__(self, count):
        self.count = count
        self.seconds, self.broker, self.boxes, self.sent = [], [], [], []

    def of(self, running, boxes, work):
        """Returns the seconds that it takes."""
        before = running.processor(), boxes.processor(), sent_bytes()
        took = seconds(work)
        after = running.processor(), boxes.processor(), sent_bytes()
        for values, end, start in zip((self.broker, self.boxes, self.sent), after, before):
            values.append((end - start) / self.count)
        self.seconds.append(took)
        return took


def watch():
    """All reports, and who is online, as a controller sees it."""
    return Subscriber(MONITOR, "kavel/+/reported/+", "kavel/+/online", MARK).skip_retained(MARK)


class Many:
    """So many boxes at a broker that saves like this."""

    def __init__(self, figures, count, saves):
        self.figures, self.count, self.saves = figures, count, saves
        self.names = names_of(count)
        self.message = hosts_message(VPN, HOSTS, ADDRESSES[0], "reload")
        self.payload = packed(self.message)
        self.report = 0  # bytes

    def add(self, what, unit, ours, floor=(), floor_name="", target=None):
        self.figures.add(f"{what}, saved {self.saves}, by boxes", self.count, unit, ours, floor, floor_name,
                         target=target)

    def measure(self, idle):
        """With `idle`, also what boxes cost that nothing happens to."""
        with disk(STORE.parent, "mosquitto"), broker(self.saves) as running:
            running.stop()
            running.start()
            empty = running.memory()
            with Boxes(self.names) as boxes:
                with Fleet() as fleet, watch() as reports:
                    self.change(fleet, reports)
                    self.measure_memory(running, boxes, empty)
                    self.measure_changes(running, boxes, fleet, reports)
                    self.measure_command()
                    if idle:
                        self.measure_idle(running, boxes)
                self.measure_restarts(running, boxes)
            self.measure_retained(running, empty)

    def change(self, fleet, reports):
        """A message to each box, until all have reported."""
        is_wanted = is_report(fleet.publish(self.names, self.payload))

        def is_last(_, topic, payload):
            self.report = len(payload)
            return "/reported/" in topic and is_wanted(payload)

        reports.until_all(self.names, is_last)

    def measure_memory(self, running, boxes, empty):
        if self.count >= LEAST_FOR_MEMORY:
            self.add("memory of the broker for a connected box", "bytes", [(running.memory() - empty) / self.count])
            self.add("memory of the link's code for a box", "bytes", [boxes.memory() / self.count])

    def measure_changes(self, running, boxes, fleet, reports):
        ours, floor = Costs(self.count), Costs(self.count)

        def by_tools():
            """As many messages of the same lengths: those to boxes for one box, the reports from another."""
            with (Lines(CONTROLLER, desired(FLOOR.name), "m" * len(self.payload), self.count) as there,
                  Lines(ANSWERS, reported(ANSWERS.name), "r" * self.report, self.count) as back):
                received.until_so_many(1, FLOOR.name)
                reports.until_so_many(1, ANSWERS.name)

                def work():
                    there.start()
                    back.start()
                    received.until_so_many(self.count, FLOOR.name)
                    reports.until_so_many(self.count, ANSWERS.name)

                floor.of(running, boxes, work)

        publish(CONTROLLER, desired(FLOOR.name), b"here", retained=True)
        with Subscriber(FLOOR, desired(FLOOR.name)).skip_retained(desired(FLOOR.name)) as received:
            interleaved(self.figures.pairs,
                        lambda: ours.of(running, boxes, lambda: self.change(fleet, reports)), by_tools)
        self.add("change to all boxes until all have reported", "s", ours.seconds, floor.seconds, TOOLS)
        self.add("change: processor time of the broker for a box", "s", ours.broker, floor.broker, TOOLS, target=CHANGE)
        self.add("change: processor time of the link's code for a box", "s", ours.boxes)
        self.add("change: bytes sent for a box", "bytes", ours.sent, floor.sent, TOOLS)

    def measure_command(self):
        """The controller's command, with its start, its connections and the revisions that it looks up."""
        FLEET.parent.mkdir(exist_ok=True)
        FLEET.write_text(json.dumps({"broker": CONTROLLER.endpoint()}))
        names, message = pathlib.Path("/run/names"), pathlib.Path("/run/message.json")
        names.write_text("".join(f"{name}\n" for name in self.names))
        message.write_text(json.dumps(self.message.fields))

        def work():
            run(BUILD / "vqfleet", "publish", "--boxes", names, message)
            run(BUILD / "vqfleet", "wait", "--boxes", names)

        repeats = self.figures.pairs if self.saves == BY_TIME else 1  # each turn takes so long that one is enough
        self.add("vqfleet publish and wait, all boxes", "s", [seconds(work) for _ in range(repeats)])

    def measure_idle(self, running, boxes):
        costs = Costs(self.count * IDLE)
        costs.of(running, boxes, lambda: time.sleep(IDLE))
        self.add("idle: processor time of the broker for a box and second", "s", costs.broker)
        self.add("idle: bytes sent for a box and second", "bytes", costs.sent)

    def measure_restarts(self, running, boxes):
        """Of the broker, until each box is online and has reported what it got again."""
        ours, floor = Costs(self.count), Costs(FLOOR_CONNECTIONS)

        def all_are_back():
            with watch() as reports:
                reports.until_all(self.names, lambda retained, topic, _: not retained and "/reported/" in topic)

        def restart():
            time.sleep(SETTLED)
            running.stop()
            running.start()
            ours.of(running, boxes, all_are_back)

        def connections_of_tools():
            for _ in range(FLOOR_CONNECTIONS):
                run("mosquitto_sub", *FLOOR.words(), "-t", desired(FLOOR.name), "-C", 1)

        def least():
            if self.saves == BY_TIME:  # connections one by one are saved in turns of their own: no floor
                floor.of(running, boxes, connections_of_tools)

        interleaved(self.figures.pairs, restart, least)
        self.add("broker restarted until all boxes have reported", "s", ours.seconds)
        self.add("connection: processor time of the broker", "s", ours.broker, floor.broker, TOOL_CONNECTION,
                 target=CONNECTION)
        self.add("connection: processor time of the link's code", "s", ours.boxes)
        self.add("connection: bytes sent", "bytes", ours.sent, floor.sent, TOOL_CONNECTION)

    def measure_retained(self, running, empty):
        """What the broker keeps of boxes that are not connected."""
        running.stop()
        running.start()
        if self.count >= LEAST_FOR_MEMORY:
            self.add("memory of the broker for a box that is not connected", "bytes",
                     [(running.memory() - empty) / self.count])
        saves = [running.save() for _ in range(self.figures.pairs)]
        self.add("what is retained saved once", "s", saves)
        self.add("bytes saved for a box", "bytes", [STORE.stat().st_size / self.count])


def names_of(count):
    return [f"box-{number}" for number in range(1, count + 1)]


def allow_descriptors(connections):
    """Also for the processes that this one starts."""
    least, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    wanted = connections + OTHER_DESCRIPTORS
    if most != resource.RLIM_INFINITY and most < wanted:
        raise RuntimeError(f"{wanted} open files are not allowed, only {most}")
    resource.setrlimit(resource.RLIMIT_NOFILE, (max(least, wanted), most))


def main():
    options = arguments(__doc__)
    figures = Figures(options)
    sizes = BRIEF_SIZES if options.brief else SIZES[:1] if options.quick else SIZES
    allow_descriptors(sizes[-1])
    make_certificates([REAL, ANSWERS.name, *names_of(sizes[-1])])
    add_namespaces((VPN,))
    with disk(), disk(STORE.parent, "mosquitto"), broker(EACH_TURN):
        measure_one_box(figures, 3 if options.brief or options.quick else 10)
    for count in sizes:
        for saves in SAVES:
            Many(figures, count, saves).measure(idle=count == sizes[-1] and saves == BY_TIME and not options.brief)
    figures.write()


if __name__ == "__main__":
    main()

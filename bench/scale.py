"""The tables of docs/scale.md, computed from the figures of all programs."""

import math
import statistics

from tables import line, shown

MESSAGES = (("reload", "reload, 20 hosts, not stored"), ("reload, stored", "reload, 20 hosts, stored"),
            ("restart", "restart, 20 hosts, not stored"), ("restart, stored", "restart, 20 hosts, stored"))
BOXES = 100_000
FLEET_MESSAGES = 1000  # that a controller sends in a second
VPNS_OF_A_BOX = 50
MEASURED_VPNS = 100  # the measured size nearest to VPNS_OF_A_BOX
BOXES_OF_A_REGION = 10_000
QUERIES = 1000  # per second, while losses were counted
BROKER_BACK = 60  # seconds of a processor for the connections of all boxes of a broker
BROKER_MEMORY = 2 << 30  # bytes: memory_limit of examples/fleet/mosquitto.conf


class NotMeasured(Exception):
    """The figures lack a case that a table needs."""


class Measured:
    """Looks up figures by the name of the case."""

    def __init__(self, entries):
        self.entries = entries

    def sizes(self, work):
        """From the smallest to the largest."""
        return sorted({entry["n"] for entry in self.entries if entry["work"] == work})

    def largest(self, work):
        if not self.sizes(work):
            raise NotMeasured(f"no figures of '{work}'")
        return self.sizes(work)[-1]

    def value(self, work, n=None):
        """The median of the case, at its largest size unless one is given. Throws NotMeasured."""
        size = n if n is not None else self.largest(work)
        for entry in self.entries:
            if entry["work"] == work and entry["n"] == size:
                return statistics.median(entry["ours"])
        raise NotMeasured(f"no figures of '{work}'")

    def range(self, work):
        """The medians of a case that is measured beside several floors, from the smallest to the largest."""
        found = sorted(statistics.median(entry["ours"]) for entry in self.entries if entry["work"] == work)
        if not found:
            raise NotMeasured(f"no figures of '{work}'")
        return found[0], found[-1]


def seconds(value):
    return shown(value, "s")


def size(value):
    return shown(value, "bytes")


def box(figures):
    """What each thing on a box costs, and what that makes for many."""
    private = figures.value("USS of an instance with 20 hosts, by VPNs")
    shared = figures.value("USS of an instance with 20 hosts, by VPNs", 1) - private
    namespace = figures.value("memory of an empty network namespace")
    recovery = "peak memory of the agent during recovery, by VPNs"
    routes = figures.largest("routes added")
    start = "instance start to first answer, by hosts"
    rule = " to ".join(map(seconds, figures.range("steering rule added and removed")))
    rows = (
        ("running instance, empty cache", f"{size(private)} of private memory; {size(shared)} once, shared by all",
         f"1,000: {size(1000 * private)}"),
        ("empty network namespace", f"{size(namespace)} of kernel memory", f"1,000: {size(1000 * namespace)}"),
        ("idle agent", size(figures.value("resident memory of the idle agent")), "independent of the number of VPNs"),
        ("agent while it applies a message", f"{size(figures.value('smallest message: peak memory'))} more",
         f"full message: {size(figures.value('full message: peak memory'))}, "
         f"stored: {size(figures.value('full message, stored: peak memory'))}"),
        (f"agent while it recovers {figures.largest(recovery):,} VPNs", f"{size(figures.value(recovery))} at most",
         ""),
        ("instance start without the agent, until it answers", seconds(figures.value(start, 10)),
         f"10,000 hosts: {seconds(figures.value(start, 10_000))}"),
        ("steering rule added and removed", rule, "one nftables table for each rule"),
        ("route added", seconds(figures.value("routes added") / routes),
         f"{routes:,}: {seconds(figures.value('routes added'))}"),
    )
    return "| What | Costs | Many |\n|---|---|---|\n" + "".join(map(line, rows))


def hosts(figures):
    silence, start = "longest time without an answer after SIGHUP, by hosts", "instance start to first answer, by hosts"
    text = "| Hosts | Without an answer | Start until first answer |\n|---:|---:|---:|\n"
    for count in figures.sizes(silence):
        text += line((f"{count:,}", seconds(figures.value(silence, count)), seconds(figures.value(start, count))))
    return text


def messages(figures):
    text = "| Message, 20 hosts unless said otherwise | Takes | Per second |\n|---|---:|---:|\n"
    for name, case in MESSAGES:
        took = figures.value(f"message in a burst, {case}")
        text += line((name, seconds(took), f"{1 / took:.0f}"))
    for name, case in (("reload, 1,024 hosts, until it answers", "message to new answer, reload, by hosts"),
                       ("full message, module alone", "full message")):
        took = figures.value(case)
        text += line((name, seconds(took), f"{1 / took:.1f}"))
    start = "VPNs started by messages until all answer, files in memory, by VPNs"
    vpns, took = figures.largest(start), figures.value(start)
    return text + line((f"start of {vpns:,} VPNs over four connections", seconds(took), f"{vpns / took:.0f}"))


def fleet(figures):
    reload = figures.value("message in a burst, reload, 20 hosts, not stored")
    restart = figures.value("message in a burst, restart, 20 hosts, not stored")
    losses = "queries lost at 1,000/s, by restarts"
    lost = figures.value(losses) / figures.largest(losses)
    recovered = "stored VPNs recovered until all answer, by VPNs"
    recovery = figures.value(recovered, MEASURED_VPNS) * VPNS_OF_A_BOX / MEASURED_VPNS
    unstored = BOXES_OF_A_REGION * VPNS_OF_A_BOX
    rows = (
        (f"{BOXES:,} boxes, one message each, {FLEET_MESSAGES:,} messages per second",
         f"{BOXES / FLEET_MESSAGES:.0f} s"),
        ("the same, for one box", f"{seconds(reload)} for a reload, {seconds(restart)} for a restart"),
        (f"queries lost by one restart, at {QUERIES:,} queries per second",
         f"{lost:.0f}: {seconds(lost / QUERIES)} without an answer"),
        (f"a box recovers {VPNS_OF_A_BOX} stored VPNs", seconds(recovery)),
        (f"{BOXES_OF_A_REGION:,} boxes with {VPNS_OF_A_BOX} VPNs that are not stored, "
         f"{FLEET_MESSAGES:,} messages per second", f"{unstored / FLEET_MESSAGES:.0f} s"),
    )
    return "| Event | Takes |\n|---|---|\n" + "".join(map(line, rows))


def brokers(figures):
    """What boxes cost brokers that save each 30 s, each with one processor."""
    def each(case):
        return figures.value(f"{case}, saved each 30 s, by boxes")

    connection, change = each("connection: processor time of the broker"), each("change: processor time of the broker "
                                                                                "for a box")
    memory, saved = each("memory of the broker for a connected box"), each("bytes saved for a box")
    idle = each("idle: processor time of the broker for a box and second")
    count = max(math.ceil(BOXES * connection / BROKER_BACK), math.ceil(BOXES * memory / BROKER_MEMORY))
    share = math.ceil(BOXES / count)
    measured = figures.largest("bytes saved for a box, saved each 30 s, by boxes")
    rows = [(what, unit(value), unit(BOXES * value)) for what, value, unit in (
        ("memory of the broker, connected", memory, size),
        ("memory of the broker, not connected", each("memory of the broker for a box that is not connected"), size),
        ("processor time of the broker for a connection", connection, seconds),
        ("bytes sent for a connection", each("connection: bytes sent"), size),
        ("processor time of the broker for a change", change, seconds),
        ("bytes sent for a change, to and from the broker", each("change: bytes sent for a box"), size),
        ("processor time of the broker in a second without a change", idle, seconds),
        ("bytes sent in such a second", each("idle: bytes sent for a box and second"), size),
        ("saved file", saved, size))]
    rows += [
        (f"brokers: connections of all boxes of one in {BROKER_BACK} s, at most {size(BROKER_MEMORY)}", "",
         f"{count} with {share:,} boxes each"),
        ("processor time of each for a change to all its boxes", "", seconds(share * change)),
        ("processor time of one for all its connections after a restart", "", seconds(share * connection)),
        ("time of one save of its file", f"{seconds(each('what is retained saved once'))} with {measured:,} boxes",
         f"{seconds(each('what is retained saved once') * share / measured)} if it grows with the file"),
        ("vqlink on the box, private memory", size(figures.value("vqlink: private memory, idle")), ""),
    ]
    return f"| What | One box | {BOXES:,} boxes |\n|---|---:|---:|\n" + "".join(map(line, rows))


TABLES = {"box": box, "hosts": hosts, "messages": messages, "fleet": fleet, "brokers": brokers}

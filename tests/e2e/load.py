"""Controllers that send many messages concurrently, and record what the agent confirmed."""

import json
import subprocess
import time

from box import BUILD, DNSMASQ, connect, frame, message, read_frame, run, wait_until

NO_INSTANCE = -3  # the result of a reload whose instance has exited


def surround(vpn):
    """Like `lab up`, without upstream servers: those of fifty VPNs would leave no inotify instance for dnsmasq."""
    for name in (f"vpn_{vpn}", f"client_{vpn}"):
        run("ip", "netns", "add", name)
    links = (("lan0", "up0", f"10.{vpn}.0.1/24"), ("lan1", "eth0", f"192.168.{vpn}.1/24"),
             ("wan0", "up1", "203.0.113.1/24"))
    inside = [f"link add {ours} type veth peer name {theirs} netns client_{vpn}\n"
              f"address add {address} dev {ours}\nlink set {ours} up\n" for ours, theirs, address in links]
    run("ip", "-n", f"vpn_{vpn}", "-batch", "-", input="link set lo up\n" + "".join(inside))
    outside = "".join(f"link set {theirs} up\n" for _, theirs, _ in links)
    run("ip", "-n", f"client_{vpn}", "-batch", "-",
        input=f"{outside}address add 192.168.{vpn}.100/24 dev eth0\nroute add default via 192.168.{vpn}.1\n")


def content(vpn, number, dice):
    """Hosts, MX, servers and forwards. They differ for every `number` of a VPN."""
    hosts = [{"domain": f"host{entry}.vpn{vpn}.example", "ip": f"10.{number}.{entry // 250}.{entry % 250 + 1}"}
             for entry in range(dice.choice([1, 2, 20, 300]))]
    mx = [{"targetdomain": f"mail{number}.vpn{vpn}.example", "sourcedomain": f"vpn{vpn}.example",
           "preference": 10 + entry} for entry in range(dice.randrange(2))]
    servers = [{"dnsserver": f"10.{vpn}.0.{53 + entry}"} for entry in range(dice.randrange(1, 4))]
    servers += [{"dnsserver": "203.0.113.53", "ifname": "wan0"}] * dice.randrange(2)
    proxies = [{"domains": [f"corp{number}-{entry}.example"], "serverips": [f"10.{vpn}.1.{number}"]}
               for entry in range(dice.randrange(4))]
    return {"dnshosts": hosts, "dnsmxhost": mx, "dnsservers": servers, "dnsproxies": proxies}


class Message:
    """One message: the encoded request, and the state that it must produce on the box."""

    def __init__(self, vpn, **fields):
        self.vpn = vpn
        self.fields = message(vpn, **fields)
        self.enables = self.fields["enable"]
        self.kept = self.fields["persistentflag"]
        packed = subprocess.run([BUILD / "vqctl", "encode", "-"], input=json.dumps(self.fields).encode(), check=True,
                                stdout=subprocess.PIPE).stdout
        self.request = frame(b"\x08\x01\x12" + varint(len(packed)) + packed)

    def files(self):
        hosts, servers = self.fields["dnshosts"], self.fields["dnsservers"]
        return {
            "hosts": [f"{host['ip']} {host['domain']}" for host in hosts],
            "resolv.conf": [f"nameserver {server['dnsserver']}" for server in servers],
            "dnsmasq.d/Mxhost.conf": [f"mx-host={mx['sourcedomain']},{mx['targetdomain']},{mx['preference']}"
                                      for mx in self.fields["dnsmxhost"]],
            "dnsmasq.d/ServerMap.conf": [f"server={server['dnsserver']}@{server['ifname']}"
                                         for server in servers if "ifname" in server],
            "dnsmasq.d/DnsProxy.conf": [f"server=/{domain}/{ip}" for domain, ip in self.forwards()],
        }

    def forwards(self):
        return [(domain, ip) for proxy in self.fields["dnsproxies"]
                for domain in proxy["domains"] for ip in proxy["serverips"]]

    def routes(self):
        if not self.enables:
            return []
        return sorted({server["dnsserver"] for server in self.fields["dnsservers"]} | {ip for _, ip in self.forwards()})

    def row(self):
        """The stored record, as far as the message determines it; None if nothing is stored."""
        if not self.kept:
            return None
        return {
            "Enable": self.enables,
            "VpnId": self.vpn,
            "DnsHost": [{"Ip": host["ip"], "Domain": host["domain"]} for host in self.fields["dnshosts"]],
            "DnsMxHost": [{"TargetDomain": mx["targetdomain"], "SourceDomain": mx["sourcedomain"],
                           "Preference": mx["preference"]} for mx in self.fields["dnsmxhost"]],
            "DnsServer": [{"DnsServerIp": server["dnsserver"], "Ifname": server.get("ifname", "")}
                          for server in self.fields["dnsservers"]],
            "DnsProxy": [{"Domain": domain, "ServerIp": ip} for domain, ip in self.forwards()],
        }


def varint(number):
    encoded = bytearray()
    while number > 0x7F:
        encoded.append(number & 0x7F | 0x80)
        number >>= 7
    return bytes(encoded + bytes([number]))


def read_varint(body, at):
    number = shift = 0
    while True:
        number |= (body[at] & 0x7F) << shift
        shift, at = shift + 7, at + 1
        if body[at - 1] < 0x80:
            return number, at


def result_of(reply):
    """The result of a reply: its first field, zigzag-encoded."""
    assert reply[0] == 0x08
    number, _ = read_varint(reply, 1)
    return number >> 1 ^ -(number & 1)


class History:
    """What a controller knows of a VPN: the last confirmed message, and the messages after it without an answer."""

    def __init__(self):
        self.confirmed = None
        self.unanswered = []

    def is_known(self):
        return self.confirmed is not None and not self.unanswered

    def runs(self):
        return self.is_known() and self.confirmed.enables


class Controller:
    """Sends messages for its own VPNs. A message that gets no answer is not repeated. A reload that finds no instance
    is followed by a restart, as docs/operations.md describes."""

    def __init__(self, messages, dice):
        self.messages = messages  # by VPN
        self.histories = {vpn: History() for vpn in messages}
        self.dice = dice
        self.peer = None
        self.sent = self.confirmed = self.lost = self.refused = 0

    def run(self, count, until):
        order = []
        for _ in range(count):
            if time.monotonic() > until:
                break
            order = order or self.dice.sample(sorted(self.histories), len(self.histories))
            vpn = order.pop()
            if self.send(self.choose(vpn)) == NO_INSTANCE:
                self.restart_until_confirmed(vpn)
        return self

    def choose(self, vpn):
        """A reload needs a running instance. If the state is unknown, only a restart is sent."""
        kinds = ["reboot", "reboot", "reload", "reload", "off"] if self.histories[vpn].runs() else ["reboot"]
        kind = self.dice.choice(kinds)
        return self.dice.choice(self.messages[vpn][kind])

    def restart_until_confirmed(self, vpn):
        """Restarts the VPN's instance; repeats that until a message is confirmed."""
        while self.send(self.dice.choice(self.messages[vpn]["reboot"])) is None:
            pass

    def check_refusal(self, one, result):
        assert result == NO_INSTANCE and one.fields["operation"] == "reload", (result, one.fields)

    def send(self, one):
        """Sends one message. Returns its result; None if there was no answer."""
        history = self.histories[one.vpn]
        self.sent += 1
        result = self.exchange(one.request)
        if result is None:
            self.lost += 1
            history.unanswered.append(one)
        elif result < 0:
            self.refused += 1
            self.check_refusal(one, result)
        else:
            self.confirmed += 1
            history.confirmed, history.unanswered = one, []
        return result

    def exchange(self, request):
        try:
            self.peer = self.peer or wait_until(self.try_connect, "the agent listens", 60)
            self.peer.sendall(request)
            reply = read_frame(self.peer)
        except ConnectionError:
            reply = None
        if reply is None:
            self.close()
        return None if reply is None else result_of(reply)

    @staticmethod
    def try_connect():
        try:
            return connect()
        except (ConnectionRefusedError, FileNotFoundError):
            return None

    def close(self):
        if self.peer is not None:
            self.peer.close()
            self.peer = None


def lines_of(vpn):
    """The lines of a VPN's files, by file name, without dnsmasq.conf."""
    directory = DNSMASQ / f"vpn_{vpn}"
    return {str(path.relative_to(directory)): path.read_text().splitlines()
            for path in directory.rglob("*") if path.is_file() and path.name != "dnsmasq.conf"}

"""A box under test: the lab's namespaces, a real vqagent with the real module, vqctl, and a client that sends queries.

Everything runs inside scripts/private: each test file has its own /etc/kavel, /run and process ids.
"""

import contextlib
import json
import os
import pathlib
import shutil
import signal
import socket
import sqlite3
import struct
import subprocess

from waiting import wait_until

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ["KAVEL_BUILD"])
STATE = pathlib.Path("/run/kavel")
SOCKET = STATE / "agent.sock"
CONFIG = pathlib.Path("/etc/kavel/agent.json")
DNSMASQ = pathlib.Path("/etc/kavel/dnsmasq")
STORE = pathlib.Path("/run/kavel-store/agent.db")


def run(*command, check=True, **options):
    return subprocess.run([str(word) for word in command], check=check, text=True, capture_output=True, **options)


def vpn_config(vpn, **changes):
    return {"id": vpn, "lan": ["lan0", "lan1"], "wan": [{"name": "wan0", "sysRoute": False}], **changes}


def message(vpn=7, **changes):
    """A CPE message in vqctl's JSON format. `changes` replace members; a member whose change is None is removed."""
    fields = {
        "enable": True,
        "operation": "reboot",
        "vpnid": vpn,
        "dnshosts": [{"domain": f"nas.vpn{vpn}.example", "ip": f"192.168.{vpn}.10"}],
        "dnsservers": [{"dnsserver": f"10.{vpn}.0.53"}],
        **changes,
    }
    return {key: value for key, value in fields.items() if value is not None}


def pid_file(vpn=7):
    return pathlib.Path(f"/run/kvl_dns_vpn_{vpn}.pid")


def instance_pid(vpn=7):
    return int(pid_file(vpn).read_text())


def alive(pid):
    try:
        stat = pathlib.Path(f"/proc/{pid}/stat").read_text()
    except (FileNotFoundError, ProcessLookupError):
        return False
    return stat.rpartition(")")[2].split()[0] not in "ZX"


def instances(vpn=None):
    """Pids of the running DNS instances, of one VPN or of all VPNs."""
    tag = f"kvl_dns_vpn_{'' if vpn is None else vpn}".encode() + (b"" if vpn is None else b".pid")
    found = []
    for entry in pathlib.Path("/proc").iterdir():
        if not entry.name.isdigit():
            continue
        try:
            words = (entry / "cmdline").read_bytes()
        except OSError:
            continue
        if words.split(b"\0")[0].endswith(b"dnsmasq") and tag in words and alive(int(entry.name)):
            found.append(int(entry.name))
    return found


def end(pid):
    """Kills a process that this test started, and waits until it has exited."""
    os.kill(pid, signal.SIGKILL)
    wait_until(lambda: not alive(pid), f"process {pid} exited")


def ask(name, kind="A", vpn=7, server=None, options=()):
    """Sends a query from the client of a VPN. Returns the answers, one per line; empty if there is none."""
    server = server or f"192.168.{vpn}.1"
    answer = run("ip", "netns", "exec", f"client_{vpn}", "dig", "+short", "+time=1", "+tries=1", *options,
                 f"@{server}", kind, name, check=False)
    return [line for line in answer.stdout.splitlines() if not line.startswith(";")]


def expect(answer, name, kind="A", **where):
    wait_until(lambda: ask(name, kind, **where) == [answer], f"{kind} {name} -> {answer}, got {ask(name, kind, **where)}")


def routes(vpn=7):
    """The destinations of the routes in table 199 of a VPN's namespace, sorted."""
    shown = run("ip", "-n", f"vpn_{vpn}", "-json", "route", "show", "table", "199", check=False)
    return sorted(route["dst"] for route in json.loads(shown.stdout or "[]"))


def tables(vpn=7):
    """Names of the nftables tables in a VPN's namespace: there is one table per rule."""
    listed = json.loads(run("ip", "netns", "exec", f"vpn_{vpn}", "nft", "-j", "list", "tables").stdout)
    return [entry["table"]["name"] for entry in listed["nftables"] if "table" in entry]


def rows():
    """The stored configurations, by VPN id."""
    with sqlite3.connect(f"file:{STORE}?mode=ro", uri=True) as store:
        return dict(store.execute("SELECT vpn_id, conf FROM cpe_dnsmasq"))


def frame(payload):
    return struct.pack("!I", len(payload)) + payload


def connect():
    peer = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    peer.settimeout(30)
    peer.connect(str(SOCKET))
    return peer


def read_frame(peer):
    """The payload of the agent's next frame; None if the agent closes the connection instead."""
    header = b""
    while len(header) < 4:
        more = peer.recv(4 - len(header))
        if not more:
            return None
        header += more
    length, body = int.from_bytes(header, "big"), b""
    while len(body) < length:
        more = peer.recv(length - len(body))
        assert more
        body += more
    return body


class Box:
    def __init__(self):
        self.agent = None
        self.log_path = pathlib.Path("/run/agent.log")
        self.log_path.write_text("")

    def configure(self, *vpns, **changes):
        CONFIG.parent.mkdir(parents=True, exist_ok=True)
        CONFIG.write_text(json.dumps({"platform": "cpe", "log": "debug", "vpns": list(vpns), **changes}))

    def spawn(self, *options, **environment):
        with self.log_path.open("a") as log:
            return subprocess.Popen([str(BUILD / "vqagent"), *options], stdout=log, stderr=log,
                                    env={**os.environ, **environment})

    def start(self, *options):
        """Starts the agent and returns when it reports READY."""
        address = "/run/notify.sock"
        pathlib.Path(address).unlink(missing_ok=True)
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as notify:
            notify.bind(address)
            notify.settimeout(0.5)
            self.agent = self.spawn(*options, NOTIFY_SOCKET=address)
            wait_until(lambda: self.is_ready(notify), "the agent is ready", 60)
        return self

    def is_ready(self, notify):
        """Whether the agent's next message to the service manager says so. Fails if the agent has ended instead."""
        assert self.agent.poll() is None, f"the agent ended with {self.agent.returncode}: {self.log()}"
        with contextlib.suppress(TimeoutError):
            return b"READY=1" in notify.recv(4096)

    def stop(self):
        """Sends SIGTERM to the agent. Returns its exit status."""
        self.agent.send_signal(signal.SIGTERM)
        status = self.agent.wait(timeout=10)
        self.agent = None
        return status

    def log(self):
        return self.log_path.read_text()

    def vqctl(self, *words, check=False, **options):
        return run(BUILD / "vqctl", *words, check=check, **options)

    def apply(self, *messages):
        """Applies messages. Fails if one is refused."""
        for one in messages:
            done = self.vqctl("apply", "-", input=json.dumps(one))
            assert done.returncode == 0, done.stdout + done.stderr + self.log()
            assert done.stdout == f"standard input: vpn {one.get('vpnid', 0)}: applied\n"

    def refused(self, one, command="apply"):
        """Sends a message that must be refused. Returns what vqctl printed about it."""
        done = self.vqctl(command, "-", input=json.dumps(one))
        assert done.returncode == 1, done.stdout + done.stderr
        return (done.stdout + done.stderr).strip().removeprefix("standard input: ")

    def status(self, vpn=7):
        shown = self.vqctl("status", "--json", "--vpn", vpn)
        (row,) = json.loads(shown.stdout)["vpns"]
        return {**row, "problems": [problem["text"] for problem in row["problems"]],
                "codes": [problem["code"] for problem in row["problems"]]}

    def cut_power(self):
        """Kills the agent and the instances, and forgets what is in memory alone. The disks are kept."""
        self.agent.kill()
        self.agent.wait()
        for pid in instances():
            end(pid)
        shutil.rmtree(STATE)

    def clean_up(self):
        if self.agent is not None and self.agent.poll() is None:
            self.agent.kill()
            self.agent.wait()
        for pid in instances():
            end(pid)
        for leftover in pathlib.Path("/run").glob("kvl_dns_vpn_*.pid"):
            leftover.unlink()
        shutil.rmtree("/etc/kavel", ignore_errors=True)
        shutil.rmtree(STATE, ignore_errors=True)
        for vpn in (7, 8):
            run("ip", "-n", f"vpn_{vpn}", "route", "flush", "table", "199", check=False)
            run("ip", "netns", "exec", f"vpn_{vpn}", "nft", "flush", "ruleset")

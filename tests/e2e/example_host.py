"""A box whose agent is the example host: a small agent in C that somebody could have written."""

import json
import os
import pathlib
import subprocess
import tempfile

from box import BUILD, ROOT, alive, instances, end, run
from waiting import wait_until

SOURCES = ROOT / "examples/host"
SOCKET = pathlib.Path("/run/example-host.sock")
STORE = pathlib.Path("/run/example-store")
CPE_VPNS = ("7 /run/netns/vpn_7 lan0,lan1 wan0 0 1007", "8 /run/netns/vpn_8 lan0,lan1 wan0 0 0")
POP_VPNS = ("0 /proc/self/ns/net none up0 0 1",)


def count_lines():
    """All lines of the host's sources and headers, as wc counts them."""
    return sum(path.read_text().count("\n") for path in SOURCES.rglob("*.[ch]") if not path.name.endswith((".pb-c.c", ".pb-c.h")))


class ExampleBox:
    def __init__(self, program="example-host"):
        self.program = BUILD / program
        self.host = None
        self.log_path = pathlib.Path("/run/example-host.log")
        self.log_path.write_text("")

    def start(self, platform="cpe", vpns=CPE_VPNS, module=None, **environment):
        """Starts the host and returns when it takes messages."""
        self.log_path.write_text("")
        command = self.command(platform, vpns, module or BUILD / "libvqAdvancedDns.so")
        with self.log_path.open("a") as log:
            self.host = subprocess.Popen(command, stdout=log, stderr=log, env={**os.environ, **environment})
        wait_until(self.is_ready, lambda: f"the host is ready: {self.log()}", 60)
        return self

    def command(self, platform, vpns, module):
        options = [word for vpn in vpns for word in ("--vpn", vpn)]
        return [str(word) for word in (self.program, "--module", module, "--platform", platform, "--store", STORE,
                                       "--c2p", "c2p0", *options)]

    def is_ready(self):
        assert self.host.poll() is None, f"the host ended with {self.host.returncode}: {self.log()}"
        return "example-host: ready\n" in self.log()

    def stop(self):
        self.host.terminate()
        self.host.wait(timeout=10)
        self.host = None

    def log(self):
        return self.log_path.read_text()

    def send(self, message):
        """Gives the host a message, in vqctl's JSON format. Returns the exit status and the answer."""
        with tempfile.TemporaryDirectory(dir="/run") as directory:
            encoded = pathlib.Path(directory) / "message"
            run(BUILD / "vqctl", "encode", "-o", encoded, "-", input=json.dumps(message))
            done = run(self.program, "--apply", encoded, check=False)
        return done.returncode, done.stdout.strip() + done.stderr.strip()

    def apply(self, message):
        status, answer = self.send(message)
        assert (status, answer) == (0, "0 applied"), answer + self.log()

    def clean_up(self):
        if self.host is not None and self.host.poll() is None:
            self.host.kill()
            self.host.wait()
        for pid in instances():
            end(pid)
        for leftover in pathlib.Path("/run").glob("kvl_dns_vpn_*.pid"):
            leftover.unlink()
        run("rm", "-rf", "/etc/kavel", STORE, SOCKET)
        run("nft", "flush", "ruleset")
        for vpn in (7, 8):
            run("ip", "-n", f"vpn_{vpn}", "route", "flush", "table", "199", check=False)
            run("ip", "netns", "exec", f"vpn_{vpn}", "nft", "flush", "ruleset")


def the_only_instance(vpn=7):
    """The pid of the VPN's instance. Fails if there are none or several, or if the pid file names another process."""
    (pid,) = instances(vpn)
    assert alive(pid)
    assert int(pathlib.Path(f"/run/kvl_dns_vpn_{vpn}.pid").read_text()) == pid
    return pid

"""The check of hosts with the example host, and the faults that can be switched on in that host."""

import os
import re
import subprocess

from box import BUILD, ROOT, end, instances, run
from example_host import CPE_VPNS, POP_VPNS, SOCKET, STORE

TABLE = ROOT / "tests/examplehost/faults.list"


def table():
    """The faults and the promises that must be named for each."""
    faults = {}
    for line in TABLE.read_text().splitlines():
        if line and not line.startswith("#"):
            fault, promises = line.split(": ")
            assert fault not in faults
            faults[fault] = promises.split()
    return faults


FAULTS = table()
# These are seen when the host works with the real module.
SECOND_PHASE = sorted(fault for fault, promises in FAULTS.items() if promises[0].startswith("call."))
FIRST_PHASE = sorted(fault for fault in FAULTS if fault not in SECOND_PHASE)


def clean_up():
    for pid in instances():
        end(pid)
    run("sh", "-c", f"rm -rf /etc/kavel {STORE} {SOCKET} /run/kvl_dns_vpn_*.pid")
    run("nft", "flush", "ruleset")
    for vpn in (7, 8):
        run("ip", "-n", f"vpn_{vpn}", "route", "flush", "table", "199", check=False)
        run("ip", "netns", "exec", f"vpn_{vpn}", "nft", "flush", "ruleset")


def check(program, *options, platform="cpe", vpns=CPE_VPNS, fault=""):
    """Runs vq-hostcheck. Returns its exit status and the verdict of each promise."""
    command = [BUILD / "vq-hostcheck", *options, "--", BUILD / program, "--module", "%m", "--platform", platform,
               "--store", STORE, "--c2p", "c2p0"]
    for vpn in vpns:
        command += ["--vpn", vpn]
    done = subprocess.run([str(word) for word in command], text=True, capture_output=True, errors="replace",
                          env={**os.environ, "KAVEL_HOST_FAULT": fault})
    verdicts = {name: verdict == "ok" for verdict, name in re.findall(r"^(ok|not ok) \d+ - (\S+)", done.stdout, re.M)}
    return done.returncode, verdicts, done.stdout


def apply_command(program):
    return f"{BUILD / program} --apply %f"


def expect_named(fault, *options):
    """Fails unless the fault's promises are named, and the exit status says what level they have."""
    wanted = FAULTS[fault]
    only = wanted[0] if len(wanted) == 1 else wanted[0].partition(".")[0] + "."
    vpn, platform, vpns = (0, "pop", POP_VPNS) if wanted == ["rule.dnat"] else (7, "cpe", CPE_VPNS)

    status, verdicts, output = check("example-host-faults", "--vpn", vpn, "--only", only, *options, platform=platform,
                                     vpns=vpns, fault=fault)

    named = {name for name, kept in verdicts.items() if not kept}
    assert set(wanted) <= named, f"named: {sorted(named)}\n{output}"
    broken = int(re.search(r"^# \d+ kept, (\d+) broken", output, re.M).group(1))
    assert status == (1 if broken > 0 else 0), output

"""The check of hosts with the example host: it passes as it is, and each fault that can be switched on is named."""

import os
import re
import subprocess

import pytest

import box as box_module
from box import BUILD, ROOT, end, instances, run
from example_host import CPE_VPNS, POP_VPNS, SOCKET, STORE

TABLE = ROOT / "tests/examplehost/faults.list"


def table():
    """The faults and the promises of which one must be named for each."""
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


@pytest.fixture(autouse=True)
def cleaned():
    yield
    clean_up()


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


@pytest.mark.parametrize("program", ["example-host", "example-host-faults"])
def test_host_without_a_fault_keeps_every_promise(program):
    status, verdicts, output = check(program, "--vpn", 7, "--apply", apply_command(program))

    assert [name for name, kept in verdicts.items() if not kept] == [], output
    assert status == 0, output
    assert len(verdicts) > 100


def test_host_of_a_pop_keeps_every_promise():
    status, verdicts, output = check("example-host", "--vpn", 0, platform="pop", vpns=POP_VPNS)

    assert [name for name, kept in verdicts.items() if not kept] == [], output
    assert status == 0, output


def test_table_has_the_faults_of_the_host():
    sources = "".join(path.read_text() for path in sorted((ROOT / "tests/examplehost").glob("faults*.c")))
    assert set(re.findall(r'HasFault\("([a-z0-9-]+)"\)', sources)) == set(FAULTS)
    assert len(FAULTS) >= 24
    promises = set(re.findall(r"^id: (\S+)$", (ROOT / "src/hostcheck/promises.list").read_text(), re.M))
    assert {promise for named in FAULTS.values() for promise in named} <= promises


def test_unknown_fault_is_refused():
    done = subprocess.run([BUILD / "example-host-faults"], env={**os.environ, "KAVEL_HOST_FAULT": "kill"},
                          text=True, capture_output=True)
    assert done.returncode == 3
    assert "no fault is called kill" in done.stderr


def expect_named(fault, *options):
    """Fails unless one of the fault's promises is named, and the exit status says what level it has."""
    wanted = FAULTS[fault]
    only = wanted[0] if len(wanted) == 1 else wanted[0].partition(".")[0] + "."

    status, verdicts, output = check("example-host-faults", "--vpn", 7, "--only", only, *options, fault=fault)

    named = {name for name, kept in verdicts.items() if not kept}
    assert named & set(wanted), f"named: {sorted(named)}\n{output}"
    broken = int(re.search(r"^# \d+ kept, (\d+) broken", output, re.M).group(1))
    assert status == (1 if broken > 0 else 0), output


@pytest.mark.parametrize("fault", FIRST_PHASE)
def test_fault_is_named(fault):
    expect_named(fault)


@pytest.mark.parametrize("fault", SECOND_PHASE)
def test_fault_with_the_module_is_named(fault):
    expect_named(fault, "--apply", apply_command("example-host-faults"))

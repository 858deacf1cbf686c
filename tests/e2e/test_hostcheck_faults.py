"""Each fault that can be switched on in the example host is named by the check of hosts."""

import os
import re
import subprocess

import pytest

from box import BUILD, ROOT
from host_faults import FAULTS, FIRST_PHASE, clean_up, expect_named


@pytest.fixture(autouse=True)
def cleaned():
    yield
    clean_up()


def test_table_has_the_faults_of_the_host():
    sources = "".join(path.read_text() for path in sorted((ROOT / "tests/examplehost").glob("faults*.c")))
    assert set(re.findall(r'HasFault\("([a-z0-9-]+)"\)', sources)) == set(FAULTS)
    assert len(FAULTS) >= 24
    promises = set(re.findall(r"^id: (\S+)$", (ROOT / "src/hostcheck/promises.list").read_text(), re.M))
    assert {promise for named in FAULTS.values() for promise in named} <= promises


# What a host owes apart from its services, and the module: broken in test_hostcheck.py.
BROKEN_ELSEWHERE = {
    "call.box-namespace", "call.init-first", "call.message", "call.platform", "call.platform-first", "call.recover-late",
    "module.exports", "module.imports", "module.version", "platform.box-directory", "platform.box-readable",
    "platform.dnsmasq", "platform.names", "platform.run-directory", "thread.main", "thread.one",
}


def test_each_promise_is_seen_broken():
    promises = set(re.findall(r"^id: (\S+)$", (ROOT / "src/hostcheck/promises.list").read_text(), re.M))
    assert promises - {promise for named in FAULTS.values() for promise in named} == BROKEN_ELSEWHERE
    sources = (ROOT / "tests/e2e/test_hostcheck.py").read_text()
    assert [promise for promise in sorted(BROKEN_ELSEWHERE) if f'"{promise}"' not in sources] == []


def test_unknown_fault_is_refused():
    done = subprocess.run([BUILD / "example-host-faults"], env={**os.environ, "KAVEL_HOST_FAULT": "kill"},
                          text=True, capture_output=True)
    assert done.returncode == 3
    assert "no fault is called kill" in done.stderr


@pytest.mark.parametrize("fault", FIRST_PHASE)
def test_fault_is_named(fault):
    expect_named(fault)

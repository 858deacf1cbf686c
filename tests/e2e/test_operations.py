"""The examples of docs/operations.md print what it says, and each code of a finding leads to its paragraph."""

import os
import re
import subprocess

import pytest

import readme
from box import BUILD, ROOT, STORE, message, vpn_config

OPERATIONS = ROOT / "docs/operations.md"
TEXT = OPERATIONS.read_text()


def with_dead_upstream(box):
    box.apply(message(dnsservers=[{"dnsserver": "10.7.0.99"}]))


def with_a_vpn(box):
    box.apply(message())


# What is done before an example is typed.
PREPARATIONS = {"why-upstream": with_dead_upstream, "query-host": with_a_vpn, "diff": with_a_vpn,
                "status-many": with_a_vpn}


def typed(line, directory):
    environment = {**os.environ, "PATH": f"{BUILD}:{os.environ['PATH']}"}
    return subprocess.run(["bash", "-c", line], cwd=directory, env=environment, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=60, check=False).stdout


@pytest.fixture
def served(box):
    """A box that keeps a history, and repairs nothing by itself."""
    STORE.unlink(missing_ok=True)
    box.configure(vpn_config(7), vpn_config(8), persistence=True, store=str(STORE), watch={"repair": False})
    return box.start()


@pytest.mark.parametrize("name", readme.parse(TEXT))
def test_example(served, tmp_path, name):
    PREPARATIONS[name](served)
    block = readme.parse(TEXT)[name]
    shown = block[0]
    if shown.typed.startswith("cat "):  # the file that the example begins with
        (tmp_path / shown.typed.removeprefix("cat ")).write_text("\n".join(shown.expected) + "\n")
    readme.run_block(block, lambda line: typed(line, tmp_path))


def test_every_code_has_its_paragraph():
    codes = re.findall(r'Entry\{Fault::k\w+,\s*"([a-z-]+)"', (ROOT / "src/agent/instances/findings.cpp").read_text())
    assert len(codes) > 30 and re.findall(r"^#### `([a-z-]+)`$", TEXT, re.M) == codes


def test_every_code_in_the_table_of_faults_exists():
    table = TEXT[TEXT.index("### Faults and what is told"):TEXT.index("### Findings")]
    codes = re.findall(r"\| `([a-z-]+): ", table)
    assert len(codes) > 20 and set(codes) <= set(re.findall(r"^#### `([a-z-]+)`$", TEXT, re.M))

"""What README.md tells a newcomer to type works, and prints what README.md says."""

import os
import signal
import subprocess

import pytest

import readme
from box import BUILD, ROOT, wait_until

# These install what is run, or need systemd: they are no part of this test. The other blocks are the way by hand.
ELSEWHERE = ["build-packages", "install", "build", "start"]


@pytest.fixture(scope="session", autouse=True)
def lab():
    """No namespaces: the README makes its own."""


@pytest.fixture
def directory(tmp_path):
    """Where the lines are typed: it looks like the source tree, and what they write is gone after the test."""
    (tmp_path / "examples").symlink_to(ROOT / "examples")
    return tmp_path


def spawn(typed, directory, output):
    environment = {**os.environ, "PATH": f"{BUILD}:{os.environ['PATH']}"}
    return subprocess.Popen(["bash", "-c", typed], cwd=directory, env=environment, stdin=subprocess.DEVNULL,
                            stdout=output, stderr=subprocess.STDOUT, text=True)


def run(typed, directory):
    return spawn(typed, directory, subprocess.PIPE).communicate(timeout=60)[0]


def test_the_way_by_hand(directory):
    log, agent = directory / "agent.log", None
    for name, commands in readme.blocks().items():
        if name in ELSEWHERE:
            continue
        if name != "start-by-hand":
            readme.run_block(commands, lambda typed: run(typed, directory))
            continue
        (command,) = commands
        with log.open("w") as output:
            agent = spawn("exec " + command.typed, directory, output)
        wait_until(lambda: readme.is_as_expected(command, log.read_text()), f"{command.expected} in {log}")
    agent.send_signal(signal.SIGTERM)
    assert agent.wait(10) == 0


def test_blocks_that_others_run_exist():
    assert set(ELSEWHERE) < set(readme.blocks())


STATUS = ["VPN  NAMESPACE  STATE    PID  UPTIME  MEMORY  ROUTES", "  7  vpn_7      running   57      0s    4.8M       3"]


@pytest.mark.parametrize("expected, output, same", [
    (["a"], "a\n", True),
    (["a"], "a", True),
    ([], "", True),
    (["a"], "b\n", False),
    (["a"], "", False),
    ([], "a\n", False),
    (["a"], "a\nb\n", False),
    (["4.8M 57"], "4.9M 57\n", False),
    (["..."], "", True),
    (["...", "end"], "a\nb\nend\n", True),
    (["...", "end"], "a\nend\nb\n", False),
    (STATUS, "VPN NAMESPACE STATE PID UPTIME MEMORY ROUTES\n7 vpn_7 running 12345 1m02s 10.0M 3\n", True),
    (STATUS, "VPN NAMESPACE STATE PID UPTIME MEMORY ROUTES\n7 vpn_7 running 57 0s 4.8M 4\n", False),
    (STATUS, "VPN NAMESPACE STATE PID UPTIME MEMORY ROUTES\n7 vpn_7 failed 57 0s 4.8M 3\n", False),
    (STATUS, "VPN NAMESPACE STATE PID UPTIME MEMORY ROUTES\n7 vpn_7 running - 0s 4.8M 3\n", False),
    (STATUS, "\n".join(STATUS) + "\nvpn 7: a problem\n", False),
])
def test_output_is_compared_word_for_word(expected, output, same):
    assert readme.is_as_expected(readme.Command("", expected), output) is same


def test_blocks_are_parsed():
    text = "```console one\n# cat <<'END'\n> a\n> END\na\n# true\n```\n```\n# no block\n```\n"
    assert readme.parse(text) == {"one": [readme.Command("cat <<'END'\na\nEND", ["a"]), readme.Command("true")]}

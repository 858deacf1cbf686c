"""What `vqctl status` shows of a box, for people and for programs."""

import json
import os
import pty
import signal
import subprocess

import pytest

from box import BUILD, STATE, expect, message, run, tables, vpn_config
from waiting import wait_until


@pytest.fixture
def serving(unattended):
    """VPN 7 is served, VPN 8 is off; nothing is repaired."""
    unattended.apply(message(7))
    wait_until(lambda: unattended.status()["answers"], "an answer")
    return unattended


def document(box, *words):
    return json.loads(box.vqctl("status", "--json", *words).stdout)


def test_the_table_ends_with_a_summary(serving):
    shown = serving.vqctl("status")

    assert (shown.returncode, shown.stderr) == (0, "")
    assert shown.stdout.endswith("\n\n2 VPNs: 1 running, 1 off\n")
    assert serving.vqctl("status", "--problems").stdout == "2 VPNs: 1 running, 1 off\n"
    assert "VPNs" not in serving.vqctl("status", "--vpn", "7").stdout


def test_a_problem_is_told_with_its_code_and_what_mends_it(serving):
    run("ip", "netns", "exec", "vpn_7", "nft", "flush", "ruleset")

    shown = serving.vqctl("status", "--problems", "--columns", "vpn,state")

    assert shown.returncode == 1
    assert shown.stdout == ("VPN  STATE\n"
                            "  7  degraded\n"
                            "\n"
                            "vpn 7: steering-missing: the steering rule is missing\n"
                            "    do: vqctl repair --vpn 7\n"
                            "\n"
                            "2 VPNs: 1 degraded, 1 off\n")
    assert serving.vqctl("repair", "--vpn", "7").returncode == 0 and tables()
    assert serving.vqctl("status").returncode == 0


def test_rows_are_sorted_and_columns_chosen(serving):
    shown = serving.vqctl("status", "--columns", "vpn,state", "--sort", "-memory").stdout
    assert shown.splitlines()[1:3] == ["  7  running", "  8  off"]
    shown = serving.vqctl("status", "--columns", "vpn,state", "--sort", "-vpn").stdout
    assert shown.splitlines()[1:3] == ["  8  off", "  7  running"]
    names = serving.vqctl("status", "--columns", "help", check=True).stdout.split()
    assert names[:3] == ["vpn", "namespace", "state"]
    assert serving.vqctl("status", "--columns", ",".join(names)).returncode == 0


def test_the_default_table_fits_into_eighty_columns(box):
    name = "customer-with-a-very-long-name-of-a-namespace-in-the-far-north"
    run("ip", "netns", "add", name)
    try:
        box.configure(vpn_config(7), {"id": 4294967295, "namespace": name, "lan": ["lan0"]})
        box.start()
        lines = box.vqctl("status").stdout.splitlines()
        table = lines[:lines.index("")]
        assert len(table) == 3 and max(map(len, table)) <= 80
        assert "  customer-wi...  failed  " in table[2]
        assert name in box.vqctl("status", "--columns", "vpn,namespace").stdout
    finally:
        run("ip", "netns", "delete", name)


def test_the_row_of_the_box_is_shown_where_it_means_something(serving):
    assert [vpn["vpn"] for vpn in document(serving)["vpns"]] == [7, 8]
    assert [vpn["vpn"] for vpn in document(serving, "--vpn", "0")["vpns"]] == [0]
    assert serving.vqctl("apply", "--box", "-", input=json.dumps(message(vpnid=None))).returncode == 0
    assert [vpn["vpn"] for vpn in document(serving)["vpns"]] == [0, 7, 8]
    assert serving.vqctl("stop", "--vpn", "0").returncode == 0


def test_the_document_tells_about_the_agent(serving):
    first = document(serving)
    assert set(first) == {"schema", "agent", "vpns"} and first["schema"] == 1
    version = serving.vqctl("--version").stdout.split()[1]
    assert (first["agent"]["version"], first["agent"]["restarts"]) == (version, 0)
    assert first["agent"]["memory_bytes"] > 1_000_000 and first["agent"]["uptime_seconds"] < 60
    serving.stop()
    serving.start()
    assert document(serving)["agent"]["restarts"] == 1
    assert (STATE / "starts").read_text() == "2\n"


def test_an_unknown_vpn_is_bad_input(serving):
    for words in (["status", "--vpn"], ["repair", "--vpn"], ["stop", "--vpn"], ["vpn", "init"], ["vpn", "release"],
                  ["store", "show"]):
        done = serving.vqctl(*words, "99", "--json")
        assert done.returncode == 2, words
        error = json.loads(done.stdout)["error"]
        assert error["exit"] == 2 and "vpn 99 is not configured" in error["text"], done.stdout


def test_each_document_of_a_watch_is_whole(serving):
    watching = subprocess.Popen([BUILD / "vqctl", "status", "--watch", "1"], stdout=subprocess.PIPE, text=True)
    try:
        lines = [watching.stdout.readline() for _ in range(11)]
    finally:
        watching.send_signal(signal.SIGINT)
    assert watching.wait(20) == 0
    titles = [at for at, line in enumerate(lines) if line.startswith("VPN  NAMESPACE")]
    assert titles == [0, 6] and lines[3] == "\n" and lines[4] == "2 VPNs: 1 running, 1 off\n" and lines[5] == "\n"


def test_a_watch_goes_on_while_the_agent_is_restarted(serving):
    watching = subprocess.Popen([BUILD / "vqctl", "status", "--watch=1", "--columns", "vpn"], stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE)
    os.set_blocking(watching.stdout.fileno(), False)
    try:
        wait_until(lambda: b"VPN\n" in (watching.stdout.read() or b""), "the table is shown")
        serving.stop()
        assert watching.stderr.readline().startswith(b"vqctl: cannot reach the agent")
        watching.stdout.read()  # what was shown before
        serving.start()
        wait_until(lambda: b"VPN\n" in (watching.stdout.read() or b""), "the table is shown again")
    finally:
        watching.send_signal(signal.SIGTERM)
    assert watching.wait(20) == 0


def test_a_watch_clears_a_terminal(serving):
    leader, terminal = pty.openpty()
    watching = subprocess.Popen([BUILD / "vqctl", "status", "--watch", "1"], stdout=terminal)
    os.close(terminal)
    seen = b""
    try:
        while seen.count(b"\x1b[H\x1b[2JVPN  NAMESPACE") < 2:
            seen += os.read(leader, 4096)
    finally:
        watching.send_signal(signal.SIGINT)
        os.close(leader)
    assert watching.wait(20) == 0


def test_what_the_steering_rule_has_caught_is_counted(serving):
    serving.apply(message())
    before = serving.status()["redirected"]
    expect("192.168.7.10", "nas.vpn7.example", server="192.0.2.53")
    assert serving.status()["redirected"] > before

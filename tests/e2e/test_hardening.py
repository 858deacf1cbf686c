"""What other users, other programs and odd data must not do to a box and its operator."""

import contextlib
import json
import os
import pathlib
import re
import select
import signal
import socket
import sqlite3
import stat
import subprocess
import sys

import pytest

from box import BUILD, SOCKET, STORE, connect, expect, frame, message, read_frame, run, vpn_config, wait_until

SANITIZED = "KAVEL_SANITIZED" in os.environ  # a sanitizer keeps freed memory for a while
LOCK = pathlib.Path("/run/kavel/agent.pid")
STATUS = frame(b"\x08\x03")

HOLD_A_READ_LOCK = """
import fcntl, sys
try:
    lock = open(sys.argv[1], "rb")
    fcntl.lockf(lock, fcntl.LOCK_SH)
    print("locked", flush=True)
except PermissionError:
    print("refused", flush=True)
sys.stdin.read()
"""

# A control character of ISO 6429 and a bidirectional override: as characters, and the first one as a byte alone.
CONTROLS = ("\u009b".encode(), "\u202e".encode())
LONE_BYTE = b"\x9b"


@pytest.fixture
def keeping(box):
    """A box with persistence whose agent was started once and stopped: the store exists."""
    run("rm", "-rf", STORE.parent)
    box.configure(vpn_config(7), vpn_config(8), persistence=True, store=str(STORE))
    box.start()
    box.stop()
    return box


def store_row(vpn, text):
    with sqlite3.connect(STORE) as store:
        store.execute("INSERT INTO cpe_dnsmasq VALUES (?, CAST(? AS TEXT))", (vpn, text))


def serves():
    """Whether a status is answered."""
    with connect() as peer:
        peer.sendall(STATUS)
        return read_frame(peer) is not None


def test_a_user_without_rights_cannot_block_the_next_start(box):
    """With a lock file of mode 0644 from before, the first start makes it private."""
    LOCK.parent.mkdir(parents=True, exist_ok=True)
    LOCK.write_text("1\n")
    LOCK.chmod(0o644)
    box.start()
    assert stat.S_IMODE(LOCK.stat().st_mode) == 0o600
    box.stop()
    as_nobody = ["setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", sys.executable, "-c"]
    with subprocess.Popen([*as_nobody, HOLD_A_READ_LOCK, str(LOCK)], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                          text=True) as other:
        assert other.stdout.readline() == "refused\n"
        box.start()
        other.stdin.close()
    assert serves()


def test_a_removed_lock_file_costs_no_agent_its_socket(running):
    """The second agent finds the first one by its socket, and leaves the socket where it is."""
    LOCK.unlink()

    second = running.spawn()
    try:
        assert second.wait(timeout=10) == 1
    finally:
        second.kill()

    assert f"already running as pid {running.agent.pid}" in running.log()
    assert serves()
    running.apply(message())


def test_the_end_of_an_agent_removes_no_socket_of_another_program(running):
    SOCKET.unlink()
    with socket.socket(socket.AF_UNIX) as other:
        other.bind(str(SOCKET))
        inode = os.stat(SOCKET).st_ino

        assert running.stop() == 0

        assert os.stat(SOCKET).st_ino == inode
    SOCKET.unlink()


def show_as_bytes(vpn):
    return subprocess.run([str(BUILD / "vqctl"), "store", "show", str(vpn)], capture_output=True, check=True).stdout


def test_controls_in_a_stored_row_do_not_reach_the_terminal(keeping):
    """VPN 7 has a record with such a host, VPN 8 a text that is no JSON."""
    record = {"Enable": False, "VpnId": 7, "Op": 1, "DnsHostNum": 1,
              "DnsHost": [{"Ip": "192.168.7.10", "Domain": "na\u202es\u009b.example"}]}
    store_row(7, json.dumps(record, ensure_ascii=False).encode())
    store_row(8, b"no JSON " + b"".join(CONTROLS) + LONE_BYTE)

    keeping.start()

    shown = show_as_bytes(7)
    assert json.loads(shown) == record
    assert b'"na\\u202es\\u009b.example"' in shown
    assert show_as_bytes(8) == b"no JSON ???\n"


def vqctl_as_bytes(command, text, *options):
    return subprocess.run([str(BUILD / "vqctl"), command, *options, "-"], input=text, capture_output=True)


def test_controls_in_a_message_reach_neither_the_terminal_nor_the_log(running):
    """The module names the domain of a forward that it skips; vqctl names a key that it does not know."""
    forward = {"domains": ["a\u202eb\u009bc"], "serverips": ["10.7.0.53"]}
    running.apply(message(dnsproxies=[forward]))
    lone = json.dumps(message(dnsproxies=[{**forward, "domains": ["loneX"]}])).encode()
    packed = vqctl_as_bytes("encode", lone).stdout.replace(b"loneX", b"lone" + LONE_BYTE)
    assert vqctl_as_bytes("apply", packed, "--binary").returncode == 0
    odd_key = vqctl_as_bytes("apply", json.dumps(message(**{"k\u202e\u009b": 1}), ensure_ascii=False).encode())

    assert odd_key.returncode == 2
    assert b"k??: unknown key" in odd_key.stderr
    log = running.log_path.read_bytes()
    for text in (b"domain(a?b?c) is invalid", b"domain(lone?) is invalid"):
        assert text in log
    for control in (*CONTROLS, LONE_BYTE):
        assert control not in odd_key.stdout + odd_key.stderr + log


def test_controls_in_a_file_name_reach_no_terminal():
    for program, options in (("vqagent", ["--config"]), ("vqctl", ["encode"])):
        odd = b"/no/\x1b[2J\xc2\x9b" + "\u202e".encode() + LONE_BYTE
        done = subprocess.run([str(BUILD / program).encode(), *(word.encode() for word in options), odd],
                              capture_output=True)
        assert done.returncode == 2
        assert b"/no/?[2J???" in done.stderr


def peak_memory_mib(pid):
    (line,) = re.findall(r"^VmHWM:\s+(\d+) kB$", pathlib.Path(f"/proc/{pid}/status").read_text(), re.MULTILINE)
    return int(line) / 1024


def send_until_answered(peer, header, size):
    """Sends a frame's header and `size` bytes of it. Returns the answer if one comes meanwhile."""
    peer.sendall(header)
    piece = bytes(256 * 1024)
    for _ in range(size // len(piece)):
        peer.sendall(piece)
        if select.select([peer], [], [], 0)[0]:
            return read_frame(peer)
    return None


def test_unfinished_frames_of_many_clients_do_not_take_the_memory(running):
    """60 clients send 15 MiB each of a frame of 16 MiB, 900 MiB in all. The agent holds 64 MiB of them."""
    before = peak_memory_mib(running.agent.pid)
    answers = []
    with contextlib.ExitStack() as stack:
        for _ in range(60):
            peer = stack.enter_context(connect())
            answers.append(send_until_answered(peer, (16 * 1024 * 1024).to_bytes(4, "big"), 15 * 1024 * 1024))
        assert peak_memory_mib(running.agent.pid) < before + 64 + 32 or SANITIZED

        assert serves()
        running.apply(message())

    refused = [answer for answer in answers if answer is not None]
    assert len(refused) == 56
    assert all(b"would take more than 67108864 bytes" in answer for answer in refused)
    running.apply(message(dnshosts=None))


def test_a_large_stored_row_does_not_take_the_memory(keeping):
    """A row of 100 MB is told in every answer and in the log, and is never read. The other row is recovered."""
    record = {"Enable": True, "VpnId": 7, "Op": 1, "DnsHostNum": 1,
              "DnsHost": [{"Ip": "192.168.7.10", "Domain": "nas.vpn7.example"}], "LocalIp": "0.0.0.0"}
    store_row(7, json.dumps(record))
    with sqlite3.connect(STORE) as store:
        store.execute("INSERT INTO cpe_dnsmasq VALUES (8, CAST(zeroblob(100000000) AS TEXT))")
    problem = "its text has 100000000 bytes; at most 33554432 are read"

    keeping.start()

    expect("192.168.7.10", "nas.vpn7.example")
    assert f"ERROR vpn 8: its stored record cannot be read, and is kept: {problem}" in keeping.log()
    for _ in range(3):
        assert keeping.status(8)["problems"] == [f"its stored record cannot be read: {problem}"]
        assert problem in keeping.vqctl("status").stdout
        listed = keeping.vqctl("store", "list", check=True).stdout
        assert f"vpn 8: {problem}" in listed and "100000000" in listed
        assert problem in keeping.vqctl("store", "show", "8").stderr
    assert peak_memory_mib(keeping.agent.pid) < 40 or SANITIZED
    assert keeping.status(7)["problems"] == []


def test_a_log_reader_that_stops_does_not_stop_the_agent(box, monkeypatch):
    """Nobody reads the agent's standard error, a pipe of 64 KiB, while 5,000 requests write more than 150 KiB."""
    reader, writer = os.pipe()
    monkeypatch.setattr(box, "spawn", lambda *options, **environment: subprocess.Popen(
        [str(BUILD / "vqagent"), *options], stdout=subprocess.DEVNULL, stderr=writer,
        env={**os.environ, **environment}))
    box.start()
    os.close(writer)
    create_directory = frame(b"\x08\x04\x18\x07")  # of VPN 7
    with connect() as peer:
        for _ in range(5000):
            peer.sendall(create_directory)
            assert read_frame(peer)
    box.apply(message())
    expect("192.168.7.10", "nas.vpn7.example")

    os.set_blocking(reader, False)
    text = os.read(reader, 1 << 20)
    assert len(text) > 32768 and b" of the log were lost" not in text, "the pipe was full"
    box.apply(message())
    (lost,) = re.findall(rb"^WARNING (\d+) lines of the log were lost\n", os.read(reader, 1 << 20))
    assert int(lost) > 1000
    assert box.stop() == 0
    os.close(reader)


def children(pid):
    """The state of each child process, by its pid."""
    found = {}
    for entry in pathlib.Path("/proc").glob("[0-9]*/stat"):
        with contextlib.suppress(OSError):
            text = entry.read_text()
            state, parent = text.rpartition(")")[2].split()[:2]
            if int(parent) == pid:
                found[int(text.split()[0])] = state
    return found


@pytest.fixture
def process_one(box, monkeypatch):
    """A box whose agent is process 1 of its pid namespace. Returns the box and the agent's pid outside."""
    monkeypatch.setattr(box, "spawn", lambda *options, **environment: subprocess.Popen(
        ["unshare", "--pid", "--fork", "--kill-child", "--mount-proc", str(BUILD / "vqagent"), *options],
        stdout=box.log_path.open("a"), stderr=subprocess.STDOUT, env={**os.environ, **environment}))
    box.start()
    (agent,) = children(box.agent.pid)
    return box, agent


def test_as_process_one_the_agent_leaves_no_zombies(process_one):
    """Neither of a process that lost its parent, nor of an instance, which leaves its shell when it starts."""
    box, agent = process_one
    status = pathlib.Path(f"/proc/{agent}/status").read_text()
    assert re.search(r"^NSpid:.*\t1$", status, re.MULTILINE), "it is process 1"
    run("nsenter", f"--target={agent}", "--pid", "--mount", "sh", "-c", "sleep 1000 < /dev/null > /dev/null 2>&1 &")
    (orphan,) = wait_until(lambda: children(agent), "the agent inherits the process")

    os.kill(orphan, signal.SIGTERM)

    wait_until(lambda: children(agent) == {}, "the process is reaped")
    box.apply(message())
    expect("192.168.7.10", "nas.vpn7.example")
    (instance,) = children(agent).values()
    assert instance != "Z"
    box.apply(message(enable=False))
    wait_until(lambda: children(agent) == {}, "the instance is reaped")
    os.kill(agent, signal.SIGTERM)
    assert box.agent.wait(timeout=10) == 0

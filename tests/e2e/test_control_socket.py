"""The control socket: who may use it, and what a bad peer can do to the others."""

import json
import socket
import stat
import subprocess
import sys
import time

import pytest

from box import (BUILD, ROOT, SOCKET, connect, frame, instance_pid, message, read_frame, run, vpn_config,
                 wait_until)


STATUS_REQUEST = b"\x08\x03"

ASK_AS_OTHER_USER = r"""
import socket, sys
peer = socket.socket(socket.AF_UNIX)
peer.settimeout(5)
peer.connect(sys.argv[1])
try:
    peer.sendall(b"\0\0\0\2\x08\x03")
    answer = peer.recv(1)
except (BrokenPipeError, ConnectionResetError):
    answer = b""
print(answer or "nothing")
"""


def test_the_socket_is_the_owners_alone(running):
    assert stat.S_IMODE(SOCKET.stat().st_mode) == 0o600


def test_another_user_is_turned_away(running):
    """Even where the file's mode would let it in."""
    SOCKET.chmod(0o666)
    as_nobody = subprocess.run(["setpriv", "--reuid=nobody", "--clear-groups", sys.executable, "-c", ASK_AS_OTHER_USER,
                                str(SOCKET)], capture_output=True, text=True)
    assert as_nobody.stdout == "nothing\n", as_nobody.stderr
    assert "65534" in running.log()


GROUP = "games"
AS_READER = ["setpriv", "--reuid=nobody", "--regid=nogroup", f"--groups={GROUP}"]


def as_reader(*words):
    return run(*AS_READER, BUILD / "vqctl", *words, check=False)


@pytest.fixture
def readable(box):
    """An agent with a group of readers, and with the capabilities of its unit alone."""
    box.configure(vpn_config(7), readers=GROUP)
    kept = "sys_admin net_admin kill sys_ptrace net_bind_service net_raw setuid setgid"
    bounding = "-all," + ",".join(f"+{name}" for name in kept.split())
    with box.log_path.open("a") as log:
        box.agent = subprocess.Popen(["setpriv", f"--bounding-set={bounding}", BUILD / "vqagent"], stdout=log, stderr=log)
    wait_until(lambda: "serving 1 VPN" in box.log(), "the agent is ready", 30)
    return box


def test_a_reader_may_ask_and_change_nothing(readable):
    readable.apply(message())
    assert (stat.S_IMODE(SOCKET.stat().st_mode), SOCKET.group()) == (0o660, GROUP)
    shown = as_reader("status", "--json")
    assert shown.stdout and "may not connect" not in readable.log(), shown.stderr
    before = instance_pid()
    for words in (["stop", "--all"], ["stop", "--vpn", "7"], ["repair"], ["flush", "--vpn", "7"], ["log", "level", "debug"],
                  ["log", "level"], ["store", "list"], ["vpn", "release", "7"], ["apply", ROOT / "examples/pop.json"],
                  ["check", ROOT / "examples/branch-office.json"]):
        done = as_reader(*words)
        if words != ["stop", "--all"]:
            assert done.returncode == 1, words
        assert "(-13 Permission denied): only root may do this" in done.stdout + done.stderr, words
    assert instance_pid() == before


def test_a_user_of_the_group_as_its_first_one_may_ask(readable):
    shown = run("setpriv", "--reuid=nobody", f"--regid={GROUP}", "--clear-groups", BUILD / "vqctl", "status", check=False)
    assert "vpn_7" in shown.stdout, shown.stderr


def test_other_users_are_kept_out_by_the_file(readable):
    shown = run("setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", BUILD / "vqctl", "status", check=False)
    assert shown.returncode == 3 and "Permission denied" in shown.stderr


def test_readers_do_not_keep_root_out(readable):
    """However many connections they open, and whatever they leave unfinished."""
    script = r"""
import socket, sys
peers = []
for number in range(200):
    peer = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM | socket.SOCK_NONBLOCK)
    peers.append(peer)
    try:
        peer.connect(sys.argv[1])
        peer.send((b"\0\0\0\x09half", b"\0\0\0\2\x08\x03" * 500)[number % 2])
    except OSError:
        pass
print("connected", flush=True)
sys.stdin.read()
"""
    with subprocess.Popen([*AS_READER, sys.executable, "-c", script, SOCKET], stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE, text=True) as readers:
        assert readers.stdout.readline() == "connected\n"
        started = time.monotonic()
        for _ in range(5):
            readable.apply(message())
            assert readable.vqctl("status").stdout
        assert time.monotonic() - started < 20
        readers.stdin.close()


def test_a_group_that_does_not_exist_keeps_nothing_from_running(box):
    box.configure(vpn_config(7), readers="no-such-group")
    box.start()
    assert "readers: group no-such-group: does not exist; its members may not connect" in box.log()
    assert stat.S_IMODE(SOCKET.stat().st_mode) == 0o600
    box.apply(message())


def test_requests_one_after_the_other(running):
    with connect() as peer:
        for _ in range(3):
            peer.sendall(frame(STATUS_REQUEST))
            assert read_frame(peer)


def test_requests_in_one_piece_and_byte_by_byte(running):
    with connect() as peer:
        peer.sendall(frame(STATUS_REQUEST) * 2)
        assert read_frame(peer)
        assert read_frame(peer)
        for byte in frame(STATUS_REQUEST):
            peer.sendall(bytes([byte]))
        assert read_frame(peer)


def test_garbage_is_answered_and_disturbs_nobody(running):
    with connect() as good, connect() as bad:
        bad.sendall(frame(b"\xff\xff\xff\xff"))
        assert read_frame(bad), "an answer that says what is wrong"
        good.sendall(frame(STATUS_REQUEST))
        assert read_frame(good)


def test_a_frame_over_the_limit(running):
    with connect() as peer:
        peer.sendall((16 * 1024 * 1024 + 1).to_bytes(4, "big"))
        answer = read_frame(peer)
        assert answer and b"16" in answer
        assert peer.recv(1) == b"", "and the connection is closed"
    running.apply(message())


def test_a_frame_at_the_limit_is_read(running):
    with connect() as peer:
        peer.sendall(frame(b"\xff" * (16 * 1024 * 1024)))
        assert read_frame(peer)


def test_a_stalled_peer_is_dropped_and_disturbs_nobody(running):
    with connect() as stalled:
        stalled.sendall(b"\0\0\0\x09half")
        running.apply(message())
        stalled.setblocking(False)
        with pytest.raises(BlockingIOError):
            # Still there: the others did not wait for its end.
            stalled.recv(1)
        stalled.settimeout(30)
        assert stalled.recv(1) == b""
    assert "stalled; its connection is closed" in running.log()


def test_an_idle_peer_is_kept(running):
    """Only a frame that was begun must be finished."""
    with connect() as idle:
        time.sleep(11)
        idle.sendall(frame(STATUS_REQUEST))
        assert read_frame(idle)


def test_many_connections_at_once(running):
    peers = []
    try:
        for _ in range(200):
            peer = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM | socket.SOCK_NONBLOCK)
            peer.connect_ex(str(SOCKET))
            peers.append(peer)
    finally:
        for peer in peers:
            peer.close()
    running.apply(message())


def test_a_stale_socket_file_is_replaced(box):
    SOCKET.parent.mkdir(parents=True, exist_ok=True)
    with socket.socket(socket.AF_UNIX) as old:
        old.bind(str(SOCKET))
    box.start()
    box.apply(message())


def test_a_term_signal_ends_it_cleanly(running):
    assert running.stop() == 0
    assert not SOCKET.exists()


def test_verbose_tells_what_is_sent(running):
    done = running.vqctl("-v", "apply", "-", input=json.dumps(message()))
    assert done.returncode == 0
    assert "CPE message for vpn 7: enabled, reboot, 1 host" in done.stderr


def test_no_colours_without_a_terminal(running):
    running.apply(message())
    wait_until(lambda: running.status()["answers"], "an answer")
    assert "\x1b" not in running.vqctl("status").stdout


@pytest.mark.parametrize("program", ["vqagent", "vqctl"])
def test_help_and_version(program):
    assert run(BUILD / program, "--help").stdout
    assert run(BUILD / program, "--version").stdout.strip()
    wrong = run(BUILD / program, "--no-such-option", check=False)
    assert wrong.returncode == 2
    assert "--no-such-option" in wrong.stderr

"""What other users, other programs and odd data must not do to a box and its operator."""

import os
import pathlib
import socket
import stat
import subprocess
import sys

from box import SOCKET, connect, frame, message, read_frame

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

"""Users of the system at the control socket, each with its rights; messages that are applied only if they are newer."""

import errno
import json
import os
import signal
import stat
import subprocess
import sys

import pytest

from box import (BUILD, ROOT, SOCKET, STATE, STORE, connect, frame, instance_pid, message, read_frame, run, vpn_config,
                 wait_until)

APPLIER = "nobody"
WATCHER = "games"
STRANGER = "daemon"
USERS = [{"name": APPLIER, "may": ["apply", "status"]}, {"name": WATCHER, "may": ["status"]}]
# Those of the unit.
CAPABILITIES = "sys_admin net_admin kill sys_ptrace net_bind_service net_raw setuid setgid".split()

APPLY, STATUS = 1, 3


def start(box):
    """Starts the agent with the capabilities of its unit alone."""
    bounding = "-all," + ",".join(f"+{name}" for name in CAPABILITIES)
    starts = box.log().count("serving ")
    with box.log_path.open("a") as log:
        box.agent = subprocess.Popen(["setpriv", f"--bounding-set={bounding}", BUILD / "vqagent"], stdout=log, stderr=log)
    wait_until(lambda: box.log().count("serving ") > starts, "the agent is ready", 30)
    return box


@pytest.fixture
def admitting(box):
    run("rm", "-rf", STORE.parent)
    box.configure(vpn_config(7), vpn_config(8), users=USERS, persistence=True, store=str(STORE))
    return start(box)


def as_user(user, *words, **options):
    return run("setpriv", f"--reuid={user}", "--regid=nogroup", "--clear-groups", *words, check=False, **options)


def vqctl_as(user, *words, **options):
    return as_user(user, BUILD / "vqctl", *words, **options)


# ---- The protocol ----

def varint(number):
    out = b""
    while number > 127:
        out += bytes([number & 127 | 128])
        number >>= 7
    return out + bytes([number])


def field(number, value):
    if isinstance(value, int):
        return varint(number << 3) + varint(value)
    return varint(number << 3 | 2) + varint(len(value)) + value


def fields(packed):
    """The fields of a packed message, by number: the values of each in their order."""
    found, at = {}, 0

    def number():
        nonlocal at
        out = shift = 0
        while True:
            byte = packed[at]
            at += 1
            out |= (byte & 127) << shift
            shift += 7
            if byte < 128:
                return out

    while at < len(packed):
        key = number()
        assert key & 7 in (0, 2), f"wire type {key & 7}"
        value = number()
        if key & 7 == 2:
            at, value = at + value, packed[at:at + value]
        found.setdefault(key >> 3, []).append(value)
    return found


class Reply:
    def __init__(self, packed):
        parts = fields(packed)

        def one(number):
            return parts.get(number, [None])[0]

        def text(number):
            return None if one(number) is None else one(number).decode()

        self.result = (one(1) >> 1) ^ -(one(1) & 1)
        self.text = text(2)
        self.enabled, self.running = one(9), one(10)
        self.history = [fields(entry) for entry in parts.get(16, [])]
        self.not_newer = bool(one(31))
        self.in_force_revision = text(32)
        self.retry = bool(one(33))


def ask_for(peer, request):
    peer.sendall(frame(request))
    return Reply(read_frame(peer))


def encoded(fields_of_message):
    path = "/run/encoded"
    run(BUILD / "vqctl", "encode", "-o", path, "-", input=json.dumps(fields_of_message))
    with open(path, "rb") as file:
        return file.read()


def newer(revision, content, *more):
    return b"".join([field(1, APPLY), field(2, content), field(4, str(revision).encode()), field(10, 1), *more])


def apply_newer(revision, content, *more):
    with connect() as peer:
        return ask_for(peer, newer(revision, content, *more))


# ---- Users ----

def test_a_user_applies_and_asks_for_the_status(admitting):
    done = vqctl_as(APPLIER, "apply", "--revision", "12", "-", input=json.dumps(message()))
    assert done.returncode == 0 and done.stdout.endswith("vpn 7: applied\n"), done.stdout + done.stderr
    checked = vqctl_as(APPLIER, "check", "-", input=json.dumps(message()))
    assert checked.returncode == 0, checked.stdout + checked.stderr
    shown = json.loads(vqctl_as(APPLIER, "status", "--json", "--vpn", "7").stdout)
    assert shown["vpns"][0]["revision"] == "12"
    (entry,) = json.loads(admitting.vqctl("history", "7", "--json").stdout)["messages"]
    assert "uid 65534" in entry["sender"]


def test_a_user_may_do_nothing_else(admitting):
    admitting.apply(message())
    before = instance_pid()
    for words in (["stop", "--vpn", "7"], ["repair"], ["flush", "--vpn", "7"], ["log", "level", "debug"], ["store", "list"],
                  ["history"], ["vpn", "release", "7"], ["why"], ["metrics"], ["confirm", "7"]):
        done = vqctl_as(APPLIER, *words)
        assert done.returncode != 0, words
        assert "this user may ask for apply, check and status" in done.stdout + done.stderr, words
    watched = vqctl_as(WATCHER, "status", "--json")
    assert json.loads(watched.stdout)["vpns"], watched.stderr
    for words in (["apply", ROOT / "examples/branch-office.json"], ["check", ROOT / "examples/branch-office.json"]):
        done = vqctl_as(WATCHER, *words)
        assert "(-13 Permission denied): only root may do this; this user may ask for status" in done.stdout + done.stderr
    assert instance_pid() == before


def test_a_stranger_is_kept_out_by_the_file_and_by_the_agent(admitting):
    assert os.listxattr(SOCKET) == ["system.posix_acl_access"]
    refused = vqctl_as(STRANGER, "status")
    assert refused.returncode == 3 and "Permission denied" in refused.stderr
    SOCKET.chmod(0o666)
    script = """
import socket, sys
peer = socket.socket(socket.AF_UNIX)
peer.connect(sys.argv[1])
try:
    peer.sendall(b"\\0\\0\\0\\2\\x08\\x03")
    print(peer.recv(1))
except (BrokenPipeError, ConnectionResetError):
    print(b"")
"""
    asked = as_user(STRANGER, sys.executable, "-c", script, SOCKET)
    assert asked.stdout == "b''\n", asked.stderr
    assert "user 1 may not connect" in admitting.log()


def test_a_user_does_not_keep_root_out(admitting):
    """However many connections it opens, and whatever it leaves unfinished."""
    script = r"""
import socket, sys
peers = []
for number in range(200):
    peer = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM | socket.SOCK_NONBLOCK)
    peers.append(peer)
    try:
        peer.connect(sys.argv[1])
        peer.send((b"\1\0\0\0half", b"\0\0\0\2\x08\x03" * 500)[number % 2])
    except OSError:
        pass
print("connected", flush=True)
sys.stdin.read()
"""
    with subprocess.Popen(["setpriv", f"--reuid={APPLIER}", "--regid=nogroup", "--clear-groups", sys.executable, "-c", script,
                           SOCKET], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as user:
        assert user.stdout.readline() == "connected\n"
        for _ in range(3):
            admitting.apply(message())
            assert admitting.vqctl("status").stdout
        assert json.loads(vqctl_as(WATCHER, "status", "--json").stdout)["vpns"], "another user is served, too"
        user.stdin.close()
    assert "4 clients of user 65534 are connected; more are turned away" in admitting.log()


def test_a_user_that_does_not_exist_keeps_nothing_from_running(box):
    box.configure(vpn_config(7), users=[{"name": "no-such-user", "may": ["apply"]}, *USERS])
    start(box)
    assert "users[0].name: user no-such-user: does not exist; it may not connect" in box.log()
    assert vqctl_as(WATCHER, "status").returncode == 0
    box.apply(message())


def test_users_and_readers_together(box):
    box.configure(vpn_config(7), users=USERS, readers="games")
    start(box)
    assert (stat.S_IMODE(SOCKET.stat().st_mode), SOCKET.group()) == (0o660, "games")
    reader = run("setpriv", f"--reuid={STRANGER}", "--regid=nogroup", "--groups=games", BUILD / "vqctl", "why", check=False)
    assert "may" not in reader.stderr and reader.returncode in (0, 1), reader.stderr
    assert vqctl_as(APPLIER, "status").returncode == 0
    assert vqctl_as(STRANGER, "status").returncode == 3


def test_a_mistake_in_the_configuration_names_the_user(box):
    box.configure(vpn_config(7), users=[{"name": APPLIER, "may": ["apply", "stop"]}])
    refused = run(BUILD / "vqagent", check=False)
    assert refused.returncode == 2
    assert 'users[0].may[1]: expected "apply" or "status", not "stop"' in refused.stderr


# ---- Messages that are newer ----

def test_a_revision_is_applied_once(admitting):
    content = encoded(message())
    first = apply_newer(12, content)
    assert (first.result, first.running, first.in_force_revision) == (0, 1, "12"), first.text
    pid = instance_pid()
    again = apply_newer(12, content)
    assert (again.result, again.not_newer, again.retry) == (-errno.EALREADY, True, False)
    assert again.text == "revision 12 is not newer than 12, which was applied"
    assert (again.enabled, again.running, again.in_force_revision) == (1, 1, "12")
    (entry,) = again.history
    assert (entry[3], entry[5]) == ([b"12"], [b"applied"]) and 7 not in entry
    assert apply_newer(11, content).not_newer
    assert instance_pid() == pid
    assert apply_newer(13, content).result == 0


def test_the_next_agent_knows_the_revision(admitting):
    content = encoded(message())
    assert apply_newer(12, content).result == 0
    for _ in range(11):
        admitting.apply(message(operation="reload"))
    admitting.agent.kill()
    admitting.agent.wait()
    start(admitting)
    again = apply_newer(12, content)
    assert again.not_newer and again.in_force_revision is None, "the last message has no revision"
    admitting.stop()
    start(admitting)
    assert apply_newer(12, content).not_newer
    assert apply_newer(13, content).result == 0


def test_a_message_of_an_agent_that_was_killed_before_its_answer_is_not_applied_again(admitting):
    """It is not in the history then."""
    content = encoded(message())
    assert apply_newer(1, content).result == 0
    with connect() as peer:
        os.kill(instance_pid(), signal.SIGSTOP)  # it takes a moment to end
        peer.sendall(frame(newer(2, content)))
        wait_until(lambda: any(b"revision 2\n" in path.read_bytes() for path in STATE.glob("*")
                               if stat.S_ISREG(path.lstat().st_mode)), "the message is in force")
        admitting.agent.kill()
        admitting.agent.wait()
    start(admitting)
    again = apply_newer(2, content)
    assert again.not_newer, again.text
    assert (again.in_force_revision, again.running) == ("2", 1)


def test_after_a_restart_of_the_box_the_stored_revision_is_in_force(admitting):
    content = encoded(message(persistentflag=True))
    assert apply_newer(3, content).in_force_revision == "3"
    assert apply_newer(4, encoded(message(persistentflag=True, dnshosts=[{"domain": "a.example", "ip": "1.2.3.4"}]))).result == 0
    admitting.cut_power()
    start(admitting)
    again = apply_newer(4, content)
    assert (again.not_newer, again.in_force_revision, again.running) == (True, "4", 1)


def test_copies_that_come_together_are_applied_once(admitting):
    content = encoded(message())
    peers = [connect() for _ in range(8)]
    for peer in peers:
        peer.sendall(frame(newer(5, content)))
    replies = [Reply(read_frame(peer)) for peer in peers]
    for peer in peers:
        peer.close()
    assert sorted(reply.result for reply in replies) == [-errno.EALREADY] * 7 + [0]
    assert all(reply.running == 1 and reply.in_force_revision == "5" for reply in replies)


def test_a_message_for_another_vpn_or_kind_of_box_is_refused(admitting):
    content = encoded(message())
    other = apply_newer(5, content, field(3, 8))
    assert (other.result, other.text) == (-errno.EINVAL, "vpn: it is 8, and the message is for vpn 7")
    pop = apply_newer(5, content, field(11, 1))
    assert (pop.result, pop.text) == (-errno.EINVAL, "pop: the message is for a POP, and the box is a CPE")
    assert apply_newer(5, content, field(3, 7), field(11, 0)).result == 0


def test_a_store_that_cannot_be_read_is_told_as_a_matter_of_time(admitting):
    content = encoded(message())
    admitting.stop()
    kept = STORE.read_bytes()
    STORE.write_bytes(b"no database" * 100)
    start(admitting)
    refused = apply_newer(5, content)
    assert (refused.result, refused.retry) == (-errno.EAGAIN, True)
    assert refused.text.startswith("the revisions that were applied before cannot be read: ")
    STORE.unlink()
    STORE.write_bytes(kept)
    assert apply_newer(5, content).result == 0


def test_the_status_tells_the_last_revision(admitting):
    assert apply_newer(5, encoded(message())).result == 0
    admitting.apply(message(operation="reload"))
    with connect() as peer:
        peer.sendall(frame(field(1, STATUS) + field(3, 7)))
        (vpn,) = fields(read_frame(peer))[6]
    last = fields(fields(vpn)[34][0])
    assert (last[3], last[5]) == ([b"5"], [b"applied"])

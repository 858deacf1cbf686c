"""The completion of the command lines of vqctl and vqfleet offers what they accept."""

import contextlib
import socket
import struct
import subprocess
import threading
import time

import pytest

import program_help
from program_help import BUILD, ROOT

PROGRAMS = ("vqctl", "vqfleet")
SCRIPT = """
source "$1"; source "$2"; shift 2
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
"_${COMP_WORDS[0]}"
[ ${#COMPREPLY[@]} -eq 0 ] || printf '%s\\n' "${COMPREPLY[@]}"
"""


def complete(*words, directory="/", program="vqctl"):
    """What is offered for the last word. No programs but ours can be found. The other completion is there, too."""
    scripts = [ROOT / "packaging/completion" / name for name in sorted(PROGRAMS, key=lambda name: name != program)]
    bash = ["/bin/bash", "--norc", "--noprofile", "-c", SCRIPT, "bash", *scripts]
    done = subprocess.run([*bash, program, *words], cwd=directory, env={"PATH": str(BUILD)}, check=True, text=True,
                          capture_output=True)
    assert done.stderr == ""
    return sorted(done.stdout.splitlines())


def flat(options):
    return [name for names in options for name in names]


COMMON = flat(program_help.options(program_help.help_of("vqctl")))


@pytest.mark.parametrize("program", PROGRAMS)
def test_the_script_is_what_the_program_prints(program):
    """After a change of the command line: vqctl completion bash >packaging/completion/vqctl"""
    printed = subprocess.run([BUILD / program, "completion", "bash"], check=True, text=True, capture_output=True).stdout
    assert (ROOT / "packaging/completion" / program).read_text() == printed


def test_commands():
    assert complete("") == sorted(program_help.commands(program_help.help_of("vqctl")))
    assert complete("-v", "s") == ["status", "stop", "store"]
    assert complete("--socket", "/x", "rep") == ["repair"]
    for parent in {words[0] for words in program_help.all_commands("vqctl") if len(words) == 2}:
        assert complete(parent, "") == sorted(program_help.commands(program_help.help_of("vqctl", parent)))


def test_options_before_the_command():
    assert complete("-") == sorted(COMMON)
    assert complete("--ver") == ["--verbose", "--version"]


@pytest.mark.parametrize("words", program_help.all_commands("vqctl"), ids=" ".join)
def test_options_of_a_command(words):
    assert complete(*words, "-") == sorted(COMMON + flat(program_help.options_of("vqctl", *words)))


@pytest.mark.parametrize("words", program_help.all_commands("vqfleet"), ids=" ".join)
def test_options_of_a_command_of_vqfleet(words):
    common = flat(program_help.options(program_help.help_of("vqfleet")))
    own = flat(program_help.options_of("vqfleet", *words))
    assert own and complete(*words, "-", program="vqfleet") == sorted(common + own)


def test_words_of_vqfleet(files):
    names = sorted(path.name for path in files.iterdir())
    assert complete("", program="vqfleet") == ["metrics", "publish", "status", "wait", "watch"]
    for words in (["--config"], ["--ca"], ["publish", "--boxes"], ["metrics", "--output"], ["publish", "--journal"]):
        assert complete(*words, "", directory=files, program="vqfleet") == names, words
    assert complete("publish", "--box", "b", "a", directory=files, program="vqfleet") == ["a.json"]
    for words in (["publish", "--box"], ["wait", "--timeout"], ["--host"], ["status"]):
        assert complete(*words, "", directory=files, program="vqfleet") == [], words


@pytest.fixture
def files(tmp_path):
    for name in ("a.json", "with blank.json", "notes.txt", "message.bin"):
        (tmp_path / name).touch()
    (tmp_path / "folder").mkdir()
    (tmp_path / "folder.json").mkdir()
    return tmp_path


@pytest.mark.parametrize("words", [["apply"], ["apply", "a.json"], ["check"], ["encode"],
                                   ["apply", "--revision", "r", "a.json"], ["apply", "--revision", "=", "r"]])
def test_message_files_are_json(words, files):
    assert complete(*words, "", directory=files) == ["a.json", "folder", "folder.json", "with blank.json"]
    assert complete(*words, "a", directory=files) == ["a.json"]


@pytest.mark.parametrize("words", [["encode", "-o"], ["encode", "--output"], ["encode", "--output", "="], ["--socket"],
                                   ["status", "-s"], ["apply", "--binary"], ["check", "--binary", "message.bin"]])
def test_other_files(words, files):
    names = sorted(path.name for path in files.iterdir())
    assert len(names) == 6
    assert complete(*words, "", directory=files) == names


COLUMNS = subprocess.run([BUILD / "vqctl", "status", "--columns", "help"], check=True, text=True,
                         capture_output=True).stdout.split()


def test_columns():
    assert complete("status", "--columns", "") == complete("status", "--sort", "=", "") == sorted(COLUMNS)
    assert complete("status", "--columns", "mem") == ["memory_bytes"]
    assert complete("status", "--columns", "vpn,state,mem") == ["vpn,state,memory_bytes"]
    assert complete("status", "--watch", "--pro") == ["--problems"]


def test_a_hidden_command_is_not_offered():
    assert complete("comp") == []


def test_nothing_is_offered_for_a_revision_or_after_the_last_argument(files):
    for words in (["apply", "--revision"], ["encode", "a.json"], ["status"], ["store", "list"], ["status", "--watch"]):
        assert complete(*words, "", directory=files) == []


def varint(number):
    head = b""
    while number > 127:
        head, number = head + bytes([number & 127 | 128]), number >> 7
    return head + bytes([number])


def field(number, value):
    if isinstance(value, int):
        return varint(number << 3) + varint(value)
    return varint(number << 3 | 2) + varint(len(value)) + value


def status_reply(*vpns):
    """A frame with the status of idle VPNs."""
    reply = field(1, 0)
    for vpn in vpns:
        numbers = b"".join(field(member, 0) for member in range(3, 17))
        reply += field(6, field(1, vpn) + field(2, b"vpn") + numbers)
    return struct.pack("!I", len(reply)) + reply


@contextlib.contextmanager
def fake_agent(path, reply):
    """Accepts connections and answers each request with `reply`. Yields an event that is set when a client is gone."""
    gone = threading.Event()
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(str(path))
        listener.listen()

        def serve():
            with contextlib.suppress(OSError):
                while True:
                    peer, _ = listener.accept()
                    with peer:
                        while peer.recv(4096):
                            peer.sendall(reply)
                    gone.set()

        threading.Thread(target=serve, daemon=True).start()
        yield gone
        listener.shutdown(socket.SHUT_RDWR)


@pytest.mark.parametrize("words", [["vpn", "init"], ["vpn", "release"], ["store", "show"], ["status", "--vpn"],
                                   ["repair", "--vpn"], ["status", "--vpn", "="]], ids=" ".join)
def test_vpn_numbers_are_those_of_the_agent(words, tmp_path):
    path = tmp_path / "agent.sock"
    with fake_agent(path, status_reply(0, 7, 4294967295)):
        deadline = time.monotonic() + 20
        # An agent that does not answer at once counts as none: on a busy machine that may be this one.
        while not (offered := complete("--socket", str(path), *words, "")):
            assert time.monotonic() < deadline
        assert offered == ["0", "4294967295", "7"]


def test_an_agent_that_does_not_answer_is_not_waited_for(tmp_path):
    path = tmp_path / "agent.sock"
    with fake_agent(path, b"") as gone:
        begin = time.monotonic()
        assert complete("--socket", str(path), "store", "show", "") == []
        assert time.monotonic() - begin < 10
        assert gone.wait(10), "vqctl still runs"


def test_no_number_is_offered_without_an_agent(tmp_path):
    assert complete("--socket", str(tmp_path / "none"), "vpn", "init", "") == []

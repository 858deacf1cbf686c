"""vqfleet with a real mosquitto. One client plays all boxes: it reports what their links would."""

import contextlib
import json
import os
import pathlib
import pty
import re
import select
import signal
import ssl
import subprocess
import threading

import paho.mqtt.client as mqtt
import pytest

from box import BUILD, message, run
from fleet_broker import CONF, USERS, Client
from fleet_world import DIRECTORY, Fleet, packed
from waiting import wait_until

CONFIG = pathlib.Path("/etc/kavel/fleet.json")
ACCESS = pathlib.Path("/etc/mosquitto/kavel/users.acl")
VQFLEET = str(BUILD / "vqfleet")
TIME = 1780000000


class Boxes:
    """The boxes of a fleet. Each does what `ways` says with a message: "apply" unless it says otherwise, "refuse", or
    "ignore"."""

    def __init__(self, world):
        self.ways = {}
        self.wanted = {}  # topic: (revision, platform, payload)
        self.order = []   # of the topics
        self.changed = threading.Condition()
        self.client = None
        self.connect(world)

    def connect(self, world):
        """Also again: a client of paho does not always survive its broker."""
        if self.client is not None:
            self.close()
        certificate = world.authority.directory / "user/boxes"
        self.client = mqtt.Client(protocol=mqtt.MQTTv5)
        self.client.tls_set(str(world.authority.trusted), f"{certificate}.pem", f"{certificate}.key",
                            tls_version=ssl.PROTOCOL_TLS_CLIENT)
        self.client.max_inflight_messages_set(500)
        self.client.on_connect = lambda client, *_: client.subscribe("kavel/+/desired/+", 1)
        self.client.on_message = self._on_message
        self.client.connect(world.broker.host, USERS)
        self.client.loop_start()

    def close(self):
        self.client.disconnect()
        self.client.loop_stop()

    def say(self, topic, text):
        """Publishes a retained message and returns when the broker has it."""
        text = text if isinstance(text, str) else json.dumps({"schema": 1, **text})
        self.client.publish(topic, text, 1, True).wait_for_publish(30)

    def online(self, *boxes, online=True, **members):
        for box in boxes:
            members = {"agent": True, "version": "0.1.0", "time": TIME, **members} if online else {}
            self.say(f"kavel/{box}/online", {"online": online, **members})

    def report(self, box, vpn=7, **members):
        self.say(f"kavel/{box}/reported/{vpn}", members)

    def _on_message(self, client, data, message):
        _, box, _, vpn = message.topic.split("/")
        given = dict(getattr(message.properties, "UserProperty", []))
        with self.changed:
            self.wanted[message.topic] = (given.get("revision"), given.get("platform"), message.payload)
            self.order.append(message.topic)
            self.changed.notify_all()
        way = self.ways.get(box, self.ways.get("", "apply"))
        if way != "ignore" and message.payload:
            client.publish(f"kavel/{box}/reported/{vpn}", json.dumps(self._answer(way, int(given["revision"]))), 1, True)

    @staticmethod
    def _answer(way, revision):
        answer = {"schema": 1, "revision": revision, "result": "applied", "inForce": revision, "enabled": True,
                  "running": True, "time": TIME}
        if way == "refuse":
            answer |= {"result": "refused", "reason": "dnshosts[0].ip: \x1b[31mexpected an address"}
            del answer["inForce"]
        return answer

    def wait_wanted(self, box, revision, vpn=7):
        """Until a revision has arrived for a box. Returns platform and payload."""
        topic = f"kavel/{box}/desired/{vpn}"
        with self.changed:
            assert self.changed.wait_for(lambda: self.wanted.get(topic, (None,))[0] == str(revision), 30), self.wanted
            return self.wanted[topic][1:]

    def revisions(self):
        with self.changed:
            return {topic.split("/")[1]: revision for topic, (revision, _, _) in self.wanted.items()}


@pytest.fixture
def fleet():
    world = Fleet()
    ACCESS.write_text(ACCESS.read_text() + "\nuser boxes\ntopic readwrite kavel/#\n")
    world.authority.make("user", "boxes")
    world.authority.make("user", "monitor")
    configure(world)
    world.start()
    world.boxes = Boxes(world)
    yield world
    world.boxes.close()
    world.clean_up()


@pytest.fixture
def silent(fleet):
    """The same with boxes that do nothing."""
    fleet.boxes.ways[""] = "ignore"
    return fleet


def configure(world, user="controller", **changes):
    certificate = world.authority.directory / "user" / user
    CONFIG.parent.mkdir(exist_ok=True)
    CONFIG.write_text(json.dumps({"broker": {"host": world.broker.host, "port": USERS, "ca": str(world.authority.trusted),
                                             "certificate": f"{certificate}.pem", "key": f"{certificate}.key", **changes}}))


def reconfigure(world, **settings):
    """Gives the broker other settings and starts it again."""
    text = CONF.read_text()
    for name, value in settings.items():
        text, count = re.subn(rf"^{name} .*$", f"{name} {value}", text, flags=re.M)
        assert count == 1, name
    world.broker.stop()
    CONF.write_text(text)
    world.broker.start()
    world.boxes.connect(world)


def vqfleet(*words, **options):
    return run(VQFLEET, *words, check=False, **{"timeout": 120, **options})


def outcome(*words, **options):
    """The exit code and what was printed: lines of standard output, lines of standard error."""
    done = vqfleet(*words, **options)
    return done.returncode, done.stdout.splitlines(), done.stderr.splitlines()


def message_file(name="vpn7.json", **changes):
    path = DIRECTORY / name
    path.write_text(json.dumps(message(**{"persistentflag": True, **changes})))
    return path


def list_file(boxes, name="boxes"):
    path = DIRECTORY / name
    path.write_text("".join(f"{box}\n" for box in boxes))
    return path


@contextlib.contextmanager
def started(*words, stdout=subprocess.PIPE, stderr=subprocess.PIPE):
    process = subprocess.Popen([VQFLEET, *map(str, words)], stdout=stdout, stderr=stderr, text=True)
    try:
        yield process
    finally:
        process.kill()
        process.wait()
        for stream in (process.stdout, process.stderr):
            if stream is not None:
                stream.close()


def read_line(stream, seconds=30):
    """The next line, without its end."""
    assert select.select([stream], [], [], seconds)[0], "no line came"
    return stream.readline().rstrip("\n")


# ---- publish ----

def test_a_message_is_published_under_a_counted_revision(fleet):
    file = message_file()
    assert outcome("publish", "--box", "b1", "--box", "b2", file) == (
        0, ["b1: revision 1 published", "b2: revision 1 published"], [])
    assert fleet.boxes.wait_wanted("b1", 1) == ("cpe", packed(message(persistentflag=True)))
    fleet.controller.wait_report(box="b1", revision=1)
    assert outcome("publish", "--box=b1", file) == (0, ["b1: revision 2 published"], [])
    # All boxes of a command get one revision: the highest counts.
    assert outcome("publish", "--box", "b2", "--box", "b1", file)[1] == [
        "b2: revision 3 published", "b1: revision 3 published"]
    # What a box has reported counts, too: whoever published it is not known any more.
    fleet.boxes.report("b9", revision=40, result="applied", time=TIME, inForce=41)
    assert outcome("publish", "--box", "b9", file) == (0, ["b9: revision 42 published"], [])
    # Another VPN counts for itself.
    assert outcome("publish", "--box", "b1", message_file("vpn8.json", vpn=8)) == (0, ["b1: revision 1 published"], [])
    assert outcome("publish", "--revision", "9223372036854775807", "--box", "b3", file)[0] == 0
    assert outcome("publish", "--box", "b3", file) == (
        1, [], ["vqfleet: b3, vpn 7: has the highest revision that there is; nothing was published"])


def test_what_a_box_would_forget_is_told(fleet):
    file = message_file(persistentflag=None)
    assert outcome("publish", "--box", "b1", file) == (
        0, ["b1: revision 1 published"],
        [f"vqfleet: {file}: without persistentflag a box does not store the message: after a restart of the box the VPN has "
         "no service until a newer revision comes"])
    assert outcome("publish", "--box", "b1", message_file(enable=False, persistentflag=None))[2] == []


def test_several_messages_and_a_pop(fleet):
    pop = DIRECTORY / "pop.json"
    pop.write_text(json.dumps({"enable": True, "localip": "10.0.0.1", "dns": ["10.0.0.53"], "persistentflag": True}))
    assert outcome("publish", "--box", "p1", pop) == (0, ["p1: revision 1 published"], [])
    assert fleet.boxes.wait_wanted("p1", 1, vpn=0)[0] == "pop"
    assert outcome("publish", "--box", "b1", message_file(), message_file("vpn8.json", vpn=8))[0] == 0
    assert fleet.boxes.wait_wanted("b1", 1, vpn=8)[1] == packed(message(8, persistentflag=True))
    assert fleet.boxes.wait_wanted("b1", 1, vpn=7)[1] == packed(message(7, persistentflag=True))


def test_everything_is_checked_before_anything_is_sent(fleet):
    bad, worse = DIRECTORY / "bad.json", DIRECTORY / "worse.json"
    bad.write_text('{"enable": 1, "operation": "later", "vpnid": 7}')
    worse.write_text('{"enable": true, "operation": "reload"}')
    code, out, err = outcome("publish", "--box", "b1", bad, message_file(), worse)
    assert (code, out) == (2, [])
    assert [re.sub("expected.*", "expected", line) for line in err] == [
        f"vqfleet: {bad}: enable: expected", f"vqfleet: {bad}: operation: expected",
        f"vqfleet: {worse}: vpnid: is missing; 0 is the box itself", "vqfleet: nothing was published"]

    boxes = list_file(["b1", "b 2", "b1"])
    assert outcome("publish", "--boxes", boxes, message_file()) == (
        2, [], [f'vqfleet: {boxes}: line 2: "b 2" is not the name of a box; line 3: "b1" is in line 1, too'])
    assert outcome("publish", message_file()) == (2, [], ["vqfleet: --box or --boxes is missing: to which boxes?"])
    for words in (["--revision", "0"], ["--revision", "017"], ["--rate", "0"], ["--rate", "5/m"], ["--box", "+"],
                  ["--revision="], ["--boxes", ""], ["--nonsense"]):
        code, out, err = outcome("publish", "--box", "b1", *words, message_file())
        assert (code, out, len(err)) == (2, [], 1), (words, err)
    with Client(fleet.broker, USERS, fleet.user) as client:
        assert client.retained("kavel/#") == {}


def test_a_revision_below_that_of_a_box_is_refused(fleet):
    fleet.boxes.report("b2", revision=7, result="applied", time=TIME, inForce=7)
    file = message_file()
    assert outcome("publish", "--revision", 6, "--box", "b1", "--box", "b2", file) == (
        1, [], ["vqfleet: revision 6 is below 7, which b2 has for vpn 7; nothing was published"])
    # The same again, for who has lost it.
    for _ in range(2):
        assert outcome("publish", "--revision", 7, "--box", "b1", "--box", "b2", file)[0] == 0


def test_garbage_of_a_box_does_not_end_a_command(fleet):
    fleet.boxes.say("kavel/b1/reported/7", "\x1b[2J{")
    fleet.boxes.say("kavel/b1/online", "[]")
    code, out, err = outcome("publish", "--box", "b1", message_file())
    assert (code, out, len(err)) == (0, ["b1: revision 1 published"], 1)
    assert err[0].startswith("vqfleet: report of b1 for vpn 7 cannot be read: line 1, column 1: ")


def test_a_list_from_standard_input(fleet):
    assert outcome("publish", "--boxes", "-", message_file(), input="b1 # the first\n\nb2\n") == (
        0, ["revision 1 is published to 2 boxes"], [])
    assert fleet.boxes.wait_wanted("b2", 1)


@pytest.mark.parametrize("way", [signal.SIGINT, signal.SIGTERM, signal.SIGKILL])
def test_a_command_that_was_interrupted_goes_on_where_it_was(silent, way):
    names = [f"b{i}" for i in range(300)]
    boxes, file = list_file(names), message_file()
    journal = pathlib.Path(f"{boxes}.journal")
    command = ["publish", "--boxes", boxes, "--rate", "200/s", file]
    with started(*command) as process:
        wait_until(lambda: journal.exists() and len(journal.read_text().splitlines()) > 50, "some are published")
        process.send_signal(way)
        _, err = process.communicate(timeout=30)
    done = len(journal.read_text().splitlines()) - 1
    assert 50 <= done < 300
    if way == signal.SIGKILL:
        assert process.returncode == -way
    else:
        assert process.returncode == 128 + way
        assert err.splitlines() == [f"vqfleet: revision 1 is published to {done} of 300 boxes; "
                                    "the same command goes on from there", "vqfleet: interrupted"]

    # Another list, other messages, or another revision do not go on.
    list_file(names[:-1])
    assert outcome(*command)[2] == [
        f"vqfleet: {journal}: belongs to another list of boxes, for revision 1; an interrupted command has written it. "
        "Repeat that command, or remove the file to forget it"]
    list_file(names)
    assert "belongs to other messages" in outcome("publish", "--boxes", boxes, message_file("other.json", vpn=8))[2][0]
    assert "belongs to revision 1, not to 5" in outcome(*command, "--revision", "5")[2][0]

    silent.boxes.order.clear()
    assert outcome(*command) == (0, ["revision 1 is published to 300 boxes"],
                                 [f"vqfleet: resumed: {done} of 300 were published before"])
    assert not journal.exists()
    wait_until(lambda: silent.boxes.revisions() == dict.fromkeys(names, "1"), silent.boxes.revisions)
    # What was acknowledged was not sent again.
    assert not {f"kavel/{box}/desired/7" for box in names[:done]} & set(silent.boxes.order)

    # The command is complete: the next one is a new one.
    assert outcome("publish", "--boxes", boxes, file) == (0, ["revision 2 is published to 300 boxes"], [])


def test_a_command_does_not_go_on_over_a_newer_revision(silent):
    boxes, file = list_file([f"b{i}" for i in range(100)]), message_file()
    journal = pathlib.Path(f"{boxes}.journal")
    command = ["publish", "--boxes", boxes, "--rate", "50", file]
    with started(*command) as process:
        wait_until(lambda: journal.exists() and len(journal.read_text().splitlines()) > 10, "some are published")
        process.kill()
        process.wait()
    assert outcome("publish", "--box", "b99", "--revision", "7", file)[0] == 0
    code, out, err = outcome(*command)
    assert (code, out, err[-1]) == (
        1, [], "vqfleet: revision 1 is below 7, which b99 has for vpn 7; nothing more was published")
    assert journal.exists()


def test_a_broker_that_comes_back_in_the_middle(silent):
    names = [f"b{i}" for i in range(300)]
    boxes = list_file(names)
    journal = pathlib.Path(f"{boxes}.journal")
    with started("publish", "--boxes", boxes, "--rate", "150", "--timeout", "60", message_file()) as process:
        wait_until(lambda: journal.exists() and len(journal.read_text().splitlines()) > 50, "some are published")
        silent.broker.stop()
        told = read_line(process.stderr)
        silent.broker.start()
        out, err = process.communicate(timeout=60)
    assert re.fullmatch(rf"vqfleet: localhost:{USERS}: .*; trying again for 60 s at most", told)
    assert process.returncode == 0, err
    assert out == "revision 1 is published to 300 boxes\n"
    assert err.splitlines()[-1] == f"vqfleet: localhost:{USERS}: connected again"
    state = json.loads(vqfleet("status", "--json").stdout)
    assert {box["box"]: box["vpns"][0]["wanted"] for box in state["boxes"]} == dict.fromkeys(names, 1)


def test_a_broker_that_does_not_come_back(silent):
    boxes = list_file([f"b{i}" for i in range(300)])
    journal = pathlib.Path(f"{boxes}.journal")
    with started("publish", "--boxes", boxes, "--rate", "100", "--timeout", "2", message_file()) as process:
        wait_until(lambda: journal.exists() and len(journal.read_text().splitlines()) > 20, "some are published")
        silent.broker.kill()
        out, err = process.communicate(timeout=60)
    assert (process.returncode, out) == (3, "")
    done = len(journal.read_text().splitlines()) - 1
    assert f"vqfleet: revision 1 is published to {done} of 300 boxes; the same command goes on from there" in err
    assert f"vqfleet: localhost:{USERS}: " in err.splitlines()[-1]


def test_progress_is_shown_on_a_terminal(silent):
    boxes = list_file([f"b{i}" for i in range(50)])
    ours, theirs = pty.openpty()
    with started("publish", "--boxes", boxes, "--rate", "100", message_file(), stderr=theirs) as process:
        os.close(theirs)
        shown = b""
        with contextlib.suppress(OSError):  # the end of a terminal
            while chunk := os.read(ours, 4096):
                shown += chunk
        assert process.wait(30) == 0
    os.close(ours)
    assert b"7/50" in shown and b"49/50" in shown


# ---- status, wait, watch, metrics ----

def test_status_shows_who_is_behind_and_why(silent):
    boxes = silent.boxes
    boxes.ways |= {"good": "apply", "bad": "refuse"}
    boxes.online("good", "bad", "slow")
    boxes.online("asleep", online=False)
    assert outcome("status") == (0, ["4 boxes: 3 online, 0 behind"], [])
    assert vqfleet("publish", "--boxes", "-", message_file(), input="good\nbad\nslow\nasleep\nodd\n").returncode == 0
    boxes.say("kavel/odd/reported/7", "odd")
    silent.controller.wait_report(box="good", revision=1)
    silent.controller.wait_report(box="bad", revision=1)

    code, out, err = outcome("status")
    assert (code, err) == (1, [])
    assert out == [
        "BOX     VPN  ONLINE  WANTED  IN FORCE  RESULT",
        "asleep    7  no           1         -  offline",
        "bad       7  yes          1         -  refused: dnshosts[0].ip: ?[31mexpected an address",
        "odd       7  no           1         -  report cannot be read: line 1, column 1: unexpected character",
        "slow      7  yes          1         -  not reported yet",
        "",
        "5 boxes: 3 online, 4 behind"]
    assert [line.split()[0] for line in outcome("status", "--all")[1][1:-2]] == ["asleep", "bad", "good", "odd", "slow"]
    assert outcome("status", "--box", "good")[:2] == (0, ["BOX   VPN  ONLINE  WANTED  IN FORCE  RESULT",
                                                          "good    7  yes          1         1  applied", "",
                                                          "1 box: 1 online, 0 behind"])
    assert outcome("status", "--box", "nobody")[:2] == (1, ["0 boxes: 0 online, 0 behind",
                                                            "nobody: nothing is known about it"])


def test_status_as_json(silent):
    silent.boxes.ways["good"] = "apply"
    silent.boxes.online("good")
    assert vqfleet("publish", "--box", "good", "--box", "bad", message_file()).returncode == 0
    silent.controller.wait_report(box="good", revision=1)
    done = vqfleet("status", "--json", "--all")
    assert done.returncode == 1
    assert json.loads(done.stdout) == {
        "schema": 1, "known": 2, "online": 1, "behind": 1, "unknown": [],
        "boxes": [{"box": "bad", "online": False,
                   "vpns": [{"vpn": 7, "behind": True, "standing": "offline", "text": "offline", "wanted": 1}]},
                  {"box": "good", "online": True, "agent": True, "version": "0.1.0", "since": TIME,
                   "vpns": [{"vpn": 7, "behind": False, "standing": "applied", "text": "applied", "wanted": 1,
                             "reported": 1, "result": "applied", "in_force": 1, "enabled": True, "running": True,
                             "time": TIME}]}]}
    assert [box["box"] for box in json.loads(vqfleet("status", "--json").stdout)["boxes"]] == ["bad"]
    done = vqfleet("status", "--json", "--port", "1")
    assert done.returncode == 3
    assert json.loads(done.stdout) == {"schema": 1, "error": {
        "exit": 3, "text": "localhost:1: cannot connect: Connection refused"}}


def test_wait_ends_when_all_is_applied(silent):
    boxes, file = silent.boxes, message_file()
    assert vqfleet("publish", "--box", "b1", "--box", "b2", file).returncode == 0
    with started("wait", "--timeout", "60") as process:
        boxes.report("b1", revision=1, result="applied", time=TIME, inForce=1, enabled=True, running=False)
        boxes.report("b2", revision=1, result="applied", time=TIME, inForce=1, enabled=True, running=True)
        boxes.report("b1", revision=1, result="applied", time=TIME, inForce=1, enabled=True, running=True)
        out, err = process.communicate(timeout=30)
    assert (process.returncode, out, err) == (0, "all boxes are as wanted: 2\n", "")
    assert outcome("wait", "--box", "b1", "--revision", "1", "--timeout", "30") == (0, ["all boxes are as wanted: 1"], [])


def test_wait_names_who_is_behind(silent):
    boxes = silent.boxes
    boxes.ways |= {"bad": "refuse", "good": "apply"}
    boxes.online("bad", "slow", "good")
    assert vqfleet("publish", "--boxes", "-", message_file(), input="good\nbad\nslow\nasleep\n").returncode == 0
    silent.controller.wait_report(box="good", revision=1)
    code, out, err = outcome("wait", "--boxes", "-", "--timeout", "2", input="good\nslow\nasleep\nnever\n")
    assert (code, out, err) == (1, [
        "asleep vpn 7: offline (online: no, wanted: 1, in force: -)", "never: nothing is published",
        "slow vpn 7: not reported yet (online: yes, wanted: 1, in force: -)", "behind: 3 of 4"], [])
    # Nobody waits for what only another message can change.
    code, out, _ = outcome("wait", "--box", "bad", "--box", "good", "--timeout", "3600")
    assert (code, out[-1]) == (1, "behind: 1 of 2")
    assert out[0].startswith("bad vpn 7: ")
    assert outcome("wait", "--box", "good", "--revision", "2", "--timeout", "1")[:2] == (
        1, ["good: revision 2 is not published", "behind: 1 of 1"])


def test_wait_goes_on_after_the_broker_was_away(silent):
    boxes = silent.boxes
    assert vqfleet("publish", "--box", "b1", message_file()).returncode == 0
    silent.broker.wait_saved("kavel/b1/desired/7")
    with started("wait", "--timeout", "90") as process:
        silent.broker.kill()
        told = read_line(process.stderr)
        silent.broker.start()
        boxes.connect(silent)
        boxes.report("b1", revision=1, result="applied", time=TIME, inForce=1, enabled=True, running=True)
        out, _ = process.communicate(timeout=60)
    assert "trying again for 90 s at most" in told
    assert (process.returncode, out) == (0, "all boxes are as wanted: 1\n")
    silent.broker.kill()
    code, out, err = outcome("wait", "--timeout", "2")
    assert (code, out) == (3, [])
    assert err[-1] == f"vqfleet: localhost:{USERS}: cannot connect: Connection refused"


def test_watch_tells_each_change(silent):
    boxes = silent.boxes
    boxes.online("b1")
    with started("watch", "--count", "6") as process:
        assert read_line(process.stdout) == "1 box: 1 online, 0 behind"
        assert vqfleet("publish", "--box", "b1", message_file()).returncode == 0
        assert read_line(process.stdout) == "b1 vpn 7: not reported yet (online: yes, wanted: 1, in force: -)"
        boxes.online("b1", online=False)
        assert read_line(process.stdout) == "b1 vpn 7: offline (online: no, wanted: 1, in force: -)"
        boxes.report("b1", revision=1, result="applied", time=TIME, inForce=1, enabled=True, running=True)
        assert read_line(process.stdout) == "b1 vpn 7: applied (online: no, wanted: 1, in force: 1)"
        boxes.say("kavel/b1/reported/7", "no report")
        assert re.match(r"b1 vpn 7: report cannot be read: line 1, column \d+: ", read_line(process.stdout))
        boxes.say("kavel/b1/desired/7", "")
        boxes.say("kavel/b1/reported/7", "")
        assert read_line(process.stdout).startswith("b1 vpn 7: ")
        assert process.wait(30) == 0
    assert outcome("watch", "--for", "1", "--all")[:2] == (
        0, ["b1: nothing is published (online: no, wanted: -, in force: -)", "1 box: 0 online, 0 behind"])


def test_watch_on_a_terminal_is_a_table(silent):
    silent.boxes.online("b1")
    assert vqfleet("publish", "--box", "b1", message_file()).returncode == 0
    ours, theirs = pty.openpty()
    with started("watch", "--count", "1", stdout=theirs) as process:
        os.close(theirs)
        shown = b""
        with contextlib.suppress(OSError):
            while chunk := os.read(ours, 4096):
                shown += chunk
        assert process.wait(30) == 0
    os.close(ours)
    assert shown.decode().startswith("\x1b[H\x1b[2JBOX  VPN  ONLINE  WANTED  IN FORCE  RESULT\r\n")
    assert "b1     7  yes          1         -  not reported yet" in shown.decode()


def test_a_watch_is_ended_by_a_signal(silent):
    with started("watch") as process:
        assert read_line(process.stdout) == "0 boxes: 0 online, 0 behind"
        process.send_signal(signal.SIGINT)
        _, err = process.communicate(timeout=30)
    assert (process.returncode, err) == (130, "vqfleet: interrupted\n")


def test_metrics(silent):
    silent.boxes.ways["b1"] = "refuse"
    silent.boxes.online("b1", "b2")
    assert vqfleet("publish", "--box", "b1", "--box", "b2", "--box", "b3", message_file()).returncode == 0
    silent.controller.wait_report(box="b1", revision=1)
    done = vqfleet("metrics", "--per-box")
    assert done.returncode == 0
    for line in ("kavel_fleet_up 1", "kavel_fleet_boxes 3", "kavel_fleet_boxes_online 2", "kavel_fleet_boxes_behind 3",
                 'kavel_fleet_vpns{standing="offline"} 1', 'kavel_fleet_vpns{standing="not_reported"} 1',
                 'kavel_fleet_vpn_behind{box="b3",vpn="7",standing="offline"} 1'):
        assert line in done.stdout.splitlines(), done.stdout
    target = DIRECTORY / "fleet.prom"
    assert outcome("metrics", "--output", target) == (0, [], [])
    assert "kavel_fleet_boxes 3\n" in target.read_text() and "vpn_behind" not in target.read_text()
    assert outcome("metrics", "--output", target, "--port", "1")[0] == 3
    assert target.read_text().splitlines()[-1] == "kavel_fleet_up 0"


# ---- who may do what ----

def test_certificates_that_do_not_fit(fleet):
    directory = fleet.authority.directory
    file = message_file()
    # Of a box, whose authority the controllers' port does not trust.
    box = fleet.authority.make("box", "b1")
    code, out, err = outcome("status", "--certificate", f"{box}.pem", "--key", f"{box}.key")
    assert (code, out, len(err)) == (3, [], 1), err
    assert err[0].startswith(f"vqfleet: localhost:{USERS}: TLS: "), err
    # The broker is not whom the CA vouches for.
    code, out, err = outcome("status", "--ca", directory / "boxes-ca/ca.pem")
    assert (code, len(err)) == (3, 1)
    assert "the certificate of the broker is not accepted" in err[0]
    # A key of another certificate, and files that do not exist.
    code, out, err = outcome("publish", "--key", directory / "user/monitor.key", "--box", "b1", file)
    assert (code, out, len(err)) == (2, [], 1), err
    code, out, err = outcome("status", "--key", "/nowhere.key")
    assert (code, out, len(err)) == (2, [], 1), err
    assert "/nowhere.key" in err[0]
    # Expired.
    old = fleet.authority.make("user", "old", days=0)
    code, out, err = outcome("status", "--certificate", f"{old}.pem", "--key", f"{old}.key")
    assert (code, out, len(err)) == (3, [], 1), err
    with Client(fleet.broker, USERS, fleet.user) as client:
        assert client.retained("kavel/#") == {}


def test_who_may_only_watch_cannot_publish(fleet):
    assert vqfleet("publish", "--box", "b1", message_file()).returncode == 0
    configure(fleet, user="monitor")
    assert outcome("status", "--box", "b1")[0] in (0, 1)
    assert outcome("wait", "--timeout", "30") == (0, ["all boxes are as wanted: 1"], [])
    code, out, err = outcome("publish", "--box", "b1", "--box", "b2", message_file())
    assert (code, out) == (1, [])
    assert sorted(err) == ["vqfleet: b1: refused by the broker: Not authorized",
                           "vqfleet: b2: refused by the broker: Not authorized", "vqfleet: refused for 2 boxes"]
    # In the topic of somebody else's marks.
    code, out, err = outcome("status", "--name", "controller")
    assert (code, out) == (3, [])
    assert err == [f"vqfleet: localhost:{USERS}: kavel-fleet/controller/mark: refused by the broker: Not authorized"]


def test_a_broker_that_drops_messages_is_noticed(fleet):
    boxes = list_file([f"b{i}" for i in range(4000)])
    fleet.boxes.ways[""] = "ignore"
    reconfigure(fleet, max_queued_messages=1000, max_queued_bytes=0, autosave_interval=1000)
    # Its revisions are asked for in parts: that fits.
    assert outcome("publish", "--boxes", boxes, message_file())[:2] == (0, ["revision 1 is published to 4000 boxes"])
    assert outcome("publish", "--boxes", boxes, message_file())[:2] == (0, ["revision 2 is published to 4000 boxes"])
    code, out, err = outcome("status")
    assert (code, out) == (3, [])
    assert err == [f"vqfleet: localhost:{USERS}: the broker has dropped messages, because its queue for a client is too "
                   "short (mosquitto: max_queued_messages)"]


# ---- the whole ----

def test_two_thousand_boxes(fleet):
    names = [f"branch-{i}" for i in range(2000)]
    boxes, file = list_file(names), message_file()
    fleet.boxes.ways["branch-77"] = "refuse"
    # Not the whole file for each message.
    reconfigure(fleet, autosave_interval=1000)
    assert outcome("publish", "--boxes", boxes, file) == (0, ["revision 1 is published to 2000 boxes"], [])
    code, out, err = outcome("wait", "--boxes", boxes, "--revision", "1", "--timeout", "100")
    assert (code, out[1:], err) == (1, ["behind: 1 of 2000"], [])
    assert out[0].startswith("branch-77 vpn 7: ")
    fleet.boxes.ways.clear()
    assert outcome("publish", "--boxes", boxes, file)[1] == ["revision 2 is published to 2000 boxes"]
    assert outcome("wait", "--timeout", "100") == (0, ["all boxes are as wanted: 2000"], [])
    assert outcome("status") == (0, ["2000 boxes: 0 online, 0 behind"], [])
    assert len(vqfleet("status", "--all").stdout.splitlines()) == 2003
    assert "kavel_fleet_boxes 2000" in vqfleet("metrics").stdout


def test_twenty_thousand_retained_topics(silent):
    boxes = list_file([f"branch-{i}" for i in range(20000)])
    reconfigure(silent, autosave_interval=100000)
    silent.boxes.close()
    assert outcome("publish", "--boxes", boxes, message_file()) == (0, ["revision 1 is published to 20000 boxes"], [])
    code, out, err = outcome("status")
    assert (code, len(out), out[-1], err) == (1, 20003, "20000 boxes: 0 online, 20000 behind", [])
    assert outcome("publish", "--boxes", boxes, message_file()) == (0, ["revision 2 is published to 20000 boxes"], [])


@pytest.mark.parametrize("verb", [None, "publish", "watch", "status", "wait", "metrics"])
def test_help_lists_the_exit_codes(verb):
    done = vqfleet(*([verb] if verb else []), "--help")
    assert done.returncode == 0
    assert done.stdout.endswith("Exit codes:\n  0  done\n  1  a box is behind, or something was refused\n"
                                "  2  bad input\n  3  the broker cannot be reached\n")


def test_without_a_configuration(fleet):
    CONFIG.unlink()
    assert outcome("status") == (2, [], [
        "vqfleet: --host: is missing, and so is broker.host in /etc/kavel/fleet.json"])
    CONFIG.write_text('{"broker": {"host": "localhost", "prot": 1}}')
    assert outcome("status") == (2, [], [
        "vqfleet: /etc/kavel/fleet.json: broker.prot: unknown key"])


def test_standard_output_that_cannot_be_written(silent):
    silent.boxes.online("b1")
    with open("/dev/full", "w") as full:
        done = subprocess.run([VQFLEET, "status", "--all"], stdout=full, stderr=subprocess.PIPE, text=True, timeout=60)
    assert (done.returncode, done.stderr) == (2, "vqfleet: standard output: cannot be written\n")

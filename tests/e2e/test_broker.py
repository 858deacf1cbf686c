"""The broker of examples/fleet: who may do what with which certificate, and what outlives the broker."""

import contextlib
import pathlib
import stat

import pytest

import fleet_broker
from fleet_broker import BOXES, USERS, Authority, Broker, Client, publish
from waiting import wait_until

WORK = pathlib.Path("/run/fleet")


@pytest.fixture(scope="module")
def authority():
    return Authority(WORK / "pki")


@pytest.fixture(scope="module")
def stranger():
    """Another authority, which nobody trusts."""
    return Authority(WORK / "stranger")


@pytest.fixture(scope="module")
def clients(authority):
    """The port and the certificate of everybody in the table, by name."""
    boxes = ("branch-1", "branch-2", "controller", "monitor")
    authority.make("box", *boxes)
    authority.make("user", "controller", "monitor", "somebody")
    return {**{name: (BOXES, authority.directory / "box" / name) for name in ("branch-1", "branch-2")},
            **{f"box {name}": (BOXES, authority.directory / "box" / name) for name in ("controller", "monitor")},
            **{name: (USERS, authority.directory / "user" / name) for name in ("controller", "monitor", "somebody")}}


@pytest.fixture(scope="module")
def broker(authority):
    broker = Broker(authority).start()
    yield broker
    broker.stop()


# Who publishes what, and who can read it besides.
MESSAGES = {
    "kavel/branch-1/desired/7": "controller",
    "kavel/branch-2/desired/7": "controller",
    "kavel/controller/desired/7": "controller",
    "kavel/branch-1/reported/7": "branch-1",
    "kavel/branch-1/online": "branch-1",
    "kavel/branch-2/reported/7": "branch-2",
    "kavel/controller/reported/7": "box controller",
    "kavel/monitor/online": "box monitor",
    "kavel-fleet/controller/mark": "controller",
    "kavel-fleet/monitor/mark": "monitor",
    "kavel-fleet/somebody/mark": "somebody",
}
FLEET = {topic for topic in MESSAGES if topic.startswith("kavel/")}
READERS = {
    "branch-1": {"kavel/branch-1/desired/7"},
    "branch-2": {"kavel/branch-2/desired/7"},
    "box controller": {"kavel/controller/desired/7"},
    "box monitor": set(),
    "controller": FLEET | {"kavel-fleet/controller/mark"},
    "monitor": FLEET | {"kavel-fleet/monitor/mark"},
    "somebody": {"kavel-fleet/somebody/mark"},
}
# Nobody may write these.
OTHERS = ("kavel/branch-1", "kavel/branch-1/other", "kavel/branch-1/desired", "kavel/branch-1/desired/7/more",
          "kavel/branch-1/reported/7/more", "kavel/branch-1/online/more", "kavel//online", "kavel-fleet/branch-1/mark",
          "kavel-fleet/controller/more", "other", "$SYS/broker/version")


@pytest.fixture(scope="module")
def published(broker, clients):
    for topic, owner in MESSAGES.items():
        assert publish(broker, *clients[owner], topic, f"by {owner}"), topic


@pytest.mark.parametrize("reader", READERS)
@pytest.mark.parametrize("pattern", ["#", "kavel/#", "kavel/+/desired/+", "kavel/branch-1/#", "kavel-fleet/#", "$SYS/#"])
def test_reading(broker, clients, published, reader, pattern):
    """A subscription gives what the client may read, and nothing else, whatever it asks for."""
    with Client(broker, *clients[reader]) as client:
        read = client.retained(pattern)
    expected = {topic for topic in READERS[reader] if fleet_broker.matches(pattern, topic)}
    assert read == {topic: f"by {MESSAGES[topic]}" for topic in expected}


@pytest.mark.parametrize("writer", READERS)
def test_writing(broker, clients, published, writer):
    """Each message of the table is written by its owner alone, or by the controller."""
    tried = {topic: publish(broker, *clients[writer], topic, f"by {MESSAGES.get(topic, writer)}")
             for topic in (*MESSAGES, *OTHERS)}
    assert {topic for topic, accepted in tried.items() if accepted} == {
        topic for topic, owner in MESSAGES.items() if owner == writer}
    with Client(broker, *clients["controller"]) as client:
        assert set(client.retained("kavel/#")) == FLEET


def test_live_messages_reach_their_box_alone(broker, clients, published):
    with Client(broker, *clients["branch-1"]) as one, Client(broker, *clients["branch-2"]) as other:
        for client in (one, other):
            client.retained("kavel/+/desired/+")
            client.messages.clear()
            client.client.subscribe("kavel/+/desired/9")
            client.retained("none")  # what was asked for before has been answered then
        assert publish(broker, *clients["controller"], "kavel/branch-1/desired/9", "live")
        assert publish(broker, *clients["controller"], "kavel/branch-2/desired/9", "other")
        for client in (one, other):
            wait_until(lambda: client.messages, "a message")
        assert [message.payload for message in one.messages] == [b"live"]
        assert [message.payload for message in other.messages] == [b"other"]
    for box in ("branch-1", "branch-2"):
        assert publish(broker, *clients["controller"], f"kavel/{box}/desired/9", "")


# ---- certificates ----


@contextlib.contextmanager
def refused():
    with pytest.raises(ConnectionError):
        yield


def test_certificates_that_are_refused(broker, authority, stranger, clients):
    authority.make("box", "gone")
    authority.revoke("box", "gone")
    fleet_broker.run(fleet_broker.FLEET / "install-broker", "--lists-only", authority.directory)
    broker.reload()
    old = authority.make("box", "old", days=0)
    wrong = {
        "expired": (BOXES, old),
        "revoked": (BOXES, authority.directory / "box/gone"),
        "of another authority": (BOXES, stranger.make("box", "branch-1")),
        "of another authority, for users": (USERS, stranger.make("user", "controller")),
        "of a user, for boxes": (BOXES, authority.directory / "user/controller"),
        "of a box, for users": (USERS, authority.directory / "box/controller"),
        "of a broker, for users": (USERS, authority.directory / "broker/localhost"),
    }
    for what, (port, certificate) in wrong.items():
        with refused():
            Client(broker, port, certificate)
            pytest.fail(f"a certificate {what} was accepted")
    for name in ("branch-1", "controller"):
        with Client(broker, *clients[name]):
            pass


def test_no_certificate(broker, authority):
    done = fleet_broker.run("mosquitto_pub", "-h", broker.host, "-p", BOXES, "--cafile", authority.trusted, "-t",
                            "kavel/branch-1/online", "-m", "x", "-u", "branch-1", "-P", "x", check=False)
    assert done.returncode != 0
    assert "certificate required" in broker.log.read_text() or "peer did not return a certificate" in broker.log.read_text()


def test_the_broker_is_checked_too(broker, clients, stranger):
    """A client that trusts another authority, and one that knows the broker by a name it does not have."""
    with refused():
        Client(broker, *clients["branch-1"], trusted=stranger.trusted)
    with refused():
        broker.host = "127.0.0.1"  # the certificate says localhost
        try:
            Client(broker, *clients["branch-1"])
        finally:
            broker.host = fleet_broker.HOST


def test_a_box_cannot_disconnect_another(broker, clients):
    """The client id is the name in the certificate, whatever the client asks for."""
    with Client(broker, *clients["branch-1"], client_id="branch-1") as client:
        with Client(broker, *clients["branch-2"], client_id="branch-1"):
            client.retained("none")
        assert client.closed is None


def test_a_name_that_is_denied_is_cut_off_at_once(broker, clients, published):
    topic = "kavel/branch-2/desired/7"
    lists = pathlib.Path("/etc/mosquitto/kavel/boxes.acl")
    before = lists.read_text()
    with Client(broker, *clients["branch-2"]) as client:
        assert set(client.retained(topic)) == {topic}
        lists.write_text(before + "user branch-2\ntopic deny kavel/#\n")
        broker.reload()
        assert client.retained(topic) == {}
    assert not publish(broker, *clients["branch-2"], "kavel/branch-2/reported/7", "denied")
    lists.write_text(before)
    broker.reload()
    assert publish(broker, *clients["branch-2"], "kavel/branch-2/reported/7", "by branch-2")


# ---- what outlives the broker ----


def test_what_is_retained_survives_a_kill(broker, clients, published):
    topic, properties = "kavel/branch-1/desired/7", ("-D", "publish", "user-property", "revision", "41")
    assert publish(broker, *clients["controller"], topic, "by controller", *properties)
    assert publish(broker, *clients["monitor"], "kavel-fleet/monitor/mark", "the last one")
    broker.wait_saved("the last one")
    broker.kill()
    broker.start()
    with Client(broker, *clients["controller"]) as client:
        assert set(client.retained("kavel/#")) == FLEET
    with Client(broker, *clients["branch-1"]) as client:
        assert client.retained("#") == {topic: "by controller"}
        (message,) = client.messages
        assert message.properties.UserProperty == [("revision", "41")]
    assert publish(broker, *clients["monitor"], "kavel-fleet/monitor/mark", "by monitor")


def test_what_a_name_has_published_outlives_its_right(broker, clients, published):
    """A controller that gets another name does not take away what boxes shall have."""
    lists = pathlib.Path("/etc/mosquitto/kavel/users.acl")
    before = lists.read_text()
    lists.write_text(before.replace("user controller", "user another"))
    broker.reload()
    with Client(broker, *clients["branch-1"]) as client:
        assert client.retained("#") == {"kavel/branch-1/desired/7": "by controller"}
    lists.write_text(before)
    broker.reload()


def test_more_messages_than_a_queue_usually_holds(broker, clients, published):
    """Whoever subscribes to all boxes gets all of them."""
    count = 3000
    with Client(broker, *clients["controller"]) as client:
        sent = [client.client.publish(f"kavel/many-{number}/desired/1", "m", 1, True) for number in range(count)]
        for one in sent:
            one.wait_for_publish(60)
        client.messages.clear()
        client.client.subscribe("kavel/+/desired/1", 1)
        wait_until(lambda: len(client.messages) == count, lambda: f"only {len(client.messages)} messages", 60)
        sent = [client.client.publish(f"kavel/many-{number}/desired/1", "", 1, True) for number in range(count)]
        for one in sent:
            one.wait_for_publish(60)


# ---- the authority ----


def test_keys_are_for_their_owner_alone(authority):
    authority.make("box", "some")
    files = [path for path in authority.directory.rglob("*") if path.is_file()]
    keys = [path for path in files if b"PRIVATE KEY" in path.read_bytes()]
    assert {path.name for path in keys} >= {"ca.key", "some.key", "localhost.key"}
    for path in keys:
        assert stat.S_IMODE(path.stat().st_mode) == 0o600, path


@pytest.mark.parametrize("words, said", [
    (["box", "a/b"], "not a name"), (["box", "+"], "not a name"), (["box", "#"], "not a name"), (["box", ""], "not a name"),
    (["box", ".x"], "not a name"), (["box", "x" * 65], "not a name"), (["user", "a b"], "not a name"),
    (["box", "good", "b\nd"], "not a name"), (["broker", "a/b"], "neither a host name nor an address"),
    (["broker", "x,DNS:other"], "neither a host name nor an address"), (["box", "a", "--days", "-1"], "--days"),
    (["revoke", "box", "nobody"], "there is no"), (["init"], "has a CA already"), (["box"], "ca box DIR"), ([], "ca box DIR")])
def test_the_authority_refuses(authority, words, said):
    before = sorted(authority.directory.rglob("*.pem"))
    done = authority.ca(*words[:1], *([authority.directory] if words else []), *words[1:], check=False)
    assert done.returncode == 2 and said in done.stderr
    assert sorted(authority.directory.rglob("*.pem")) == before

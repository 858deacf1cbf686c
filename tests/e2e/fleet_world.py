"""Boxes of a fleet: vqlink as it runs on a box, and a controller that publishes and listens."""

import contextlib
import json
import os
import pathlib
import pwd
import shutil
import signal
import socket
import ssl
import subprocess
import threading

import paho.mqtt.client as mqtt
from paho.mqtt.packettypes import PacketTypes
from paho.mqtt.properties import Properties

from box import BUILD
from fleet_broker import BOXES, USERS, Authority, Broker
from waiting import wait_until

DIRECTORY = pathlib.Path("/run/fleet")
LINK_USER = "nobody"
BOX = "branch-1"


def packed(message):
    """A message in vqctl's JSON format as the bytes that are published."""
    return subprocess.run([BUILD / "vqctl", "encode", "-"], input=json.dumps(message).encode(), check=True,
                          capture_output=True).stdout


def for_link(**changes):
    """What Box.configure() takes for a box with a link: a store, and the user of the link."""
    return {"persistence": True, "users": [{"name": LINK_USER, "may": ["apply", "status"]}], **changes}


def properties_of(revision, platform):
    given = Properties(PacketTypes.PUBLISH)
    given.UserProperty = [(name, str(value)) for name, value in (("revision", revision), ("platform", platform))
                          if value is not None]
    return given


class TlsClient(mqtt.Client):
    """Takes every end of a TLS connection for one of the connection: others end the thread of paho's own client."""

    def _sock_send(self, buf):
        with as_connection_error():
            return super()._sock_send(buf)

    def _sock_recv(self, bufsize):
        with as_connection_error():
            return super()._sock_recv(bufsize)


@contextlib.contextmanager
def as_connection_error():
    try:
        yield
    except (ssl.SSLWantReadError, ssl.SSLWantWriteError):
        raise
    except ssl.SSLError as error:
        raise ConnectionError(str(error)) from error


class Controller:
    """Publishes as a controller, and keeps what boxes say. It connects again when the broker comes back."""

    def __init__(self, broker, certificate):
        self.broker = broker
        self.state = {}    # the last payload of each topic
        self.heard = []    # all messages of boxes, in their order: (topic, payload, retained)
        self.acknowledged = set()
        self.disconnections = 0
        self.changed = threading.Condition()
        self.client = TlsClient(protocol=mqtt.MQTTv5)
        self.client.reconnect_delay_set(1, 1)
        self.client.tls_set(str(broker.authority.trusted), f"{certificate}.pem", f"{certificate}.key",
                            tls_version=ssl.PROTOCOL_TLS_CLIENT)
        self.client.on_connect = self._on_connect
        self.client.on_message = self._on_message
        self.client.on_publish = self._on_publish
        self.client.on_disconnect = self._on_disconnect
        self.client.connect(broker.host, USERS)
        self.client.loop_start()

    def close(self):
        self.client.disconnect()
        self.client.loop_stop()

    def _on_connect(self, client, data, flags, code, properties):
        client.subscribe([("kavel/+/reported/+", 1), ("kavel/+/online", 1)])

    def _on_disconnect(self, client, data, code, properties=None):
        self.disconnections += 1

    def _on_message(self, client, data, message):
        with self.changed:
            self.state[message.topic] = message.payload
            self.heard.append((message.topic, message.payload, message.retain))
            self.changed.notify_all()

    def _on_publish(self, client, data, number):
        with self.changed:
            self.acknowledged.add(number)
            self.changed.notify_all()

    def send(self, topic, payload, revision=None, platform="cpe"):
        """Publishes retained with QoS 1. Returns its number."""
        return self.client.publish(topic, payload, qos=1, retain=True, properties=properties_of(revision, platform)).mid

    def put(self, topic, payload, revision=None, platform="cpe", seconds=60):
        """The same; returns when the broker has acknowledged it. Publishes again if a broker has lost it."""
        def is_acknowledged():
            number = self.send(topic, payload, revision, platform)
            with self.changed:
                return self.changed.wait_for(lambda: number in self.acknowledged, 2)

        wait_until(is_acknowledged, f"{topic} is published", seconds)

    def publish(self, message, revision, box=BOX, **options):
        """Publishes a message in vqctl's JSON format for its VPN."""
        self.put(f"kavel/{box}/desired/{message.get('vpnid', 0)}", packed(message), revision, **options)

    def report(self, vpn=7, box=BOX):
        """The last report about a VPN; nothing if there is none."""
        return json.loads(self.state.get(f"kavel/{box}/reported/{vpn}") or b"{}")

    def presence(self, box=BOX):
        return json.loads(self.state.get(f"kavel/{box}/online") or b"{}")

    def wait_report(self, vpn=7, box=BOX, seconds=30, **members):
        """Until the report about a VPN has these members; a value may be a function of the member. Returns it."""
        def fits(report):
            return all(value(report.get(name)) if callable(value) else report.get(name) == value
                       for name, value in members.items())

        wait_until(lambda: fits(self.report(vpn, box)), lambda: f"{members} in {self.report(vpn, box)}", seconds)
        return self.report(vpn, box)

    def wait_online(self, box=BOX, online=True, agent=True, seconds=30):
        def is_so():
            presence = self.presence(box)
            return presence.get("online") is online and (not online or presence.get("agent") is agent)

        wait_until(is_so, lambda: f"presence is {self.presence(box)}", seconds)


class LinkProcess:
    """vqlink of a box, as the user that the agent admits."""

    def __init__(self, fleet, box=BOX, user=LINK_USER):
        self.fleet, self.box, self.user = fleet, box, user
        self.directory = DIRECTORY / "links" / box
        self.directory.mkdir(parents=True, exist_ok=True)
        self.config = self.directory / "link.json"
        self.log_path = self.directory / "log"
        self.log_path.write_text("")
        self.process = None
        self.install(fleet.authority.make("box", box))
        self.configure()

    def install(self, certificate):
        """Gives it a certificate, readable by its user alone."""
        user = pwd.getpwnam(self.user)
        for ending in ("pem", "key"):
            target = self.directory / f"box.{ending}"
            target.unlink(missing_ok=True)
            shutil.copy(f"{certificate}.{ending}", target)
            os.chown(target, user.pw_uid, user.pw_gid)
            target.chmod(0o400)

    def configure(self, broker=None, **changes):
        endpoint = {"host": self.fleet.broker.host, "port": BOXES, "ca": str(self.fleet.authority.trusted),
                    "certificate": str(self.directory / "box.pem"), "key": str(self.directory / "box.key")}
        self.config.write_text(json.dumps({"box": self.box, "broker": {**endpoint, **(broker or {})}, "log": "debug",
                                           **changes}))

    def command(self):
        return ["setpriv", "--reuid", self.user, "--regid", str(pwd.getpwnam(self.user).pw_gid), "--clear-groups",
                "--no-new-privs", str(BUILD / "vqlink"), "--config", str(self.config)]

    def spawn(self, **environment):
        with self.log_path.open("a") as log:
            self.process = subprocess.Popen(self.command(), stdout=log, stderr=log, env={**os.environ, **environment})
        return self

    def start(self):
        """Starts it, and returns when it reports READY."""
        address = "/run/link-notify.sock"
        pathlib.Path(address).unlink(missing_ok=True)
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as notify:
            notify.bind(address)
            os.chmod(address, 0o666)
            notify.settimeout(0.5)
            self.spawn(NOTIFY_SOCKET=address)
            wait_until(lambda: self._is_ready(notify), lambda: f"vqlink is ready: {self.log()}", 30)
        return self

    def _is_ready(self, notify):
        assert self.is_running(), self.log()
        with contextlib.suppress(TimeoutError):
            return b"READY=1" in notify.recv(4096)

    def is_running(self):
        return self.process is not None and self.process.poll() is None

    def log(self):
        return self.log_path.read_text()

    def wait_log(self, text, count=1, seconds=30):
        wait_until(lambda: self.log().count(text) >= count, lambda: f"{text!r} in: {self.log()}", seconds)

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        status = self.process.wait(30)
        self.process = None
        return status

    def kill(self):
        self.process.kill()
        self.process.wait()
        self.process = None


class Fleet:
    """A broker, its authority, a controller, and the links that are asked for."""

    def __init__(self):
        DIRECTORY.mkdir(exist_ok=True)
        self.authority = Authority(DIRECTORY / "pki")
        self.broker = Broker(self.authority)
        self.user = self.authority.make("user", "controller")
        self.links = []
        self.controller = None

    def start(self):
        self.broker.start()
        self.controller = self.new_controller()
        return self

    def new_controller(self):
        return Controller(self.broker, self.user)

    def link(self, box=BOX, **options):
        self.links.append(LinkProcess(self, box, **options))
        return self.links[-1]

    def clean_up(self):
        running = [link for link in self.links if link.is_running()]
        stopped = {link.box: link.stop() for link in running}
        if self.controller is not None:
            self.controller.close()
        if self.broker.process is not None and self.broker.process.poll() is None:
            self.broker.kill()
        shutil.rmtree(DIRECTORY)
        for kept in pathlib.Path("/var/lib/mosquitto").iterdir():
            kept.unlink()
        assert set(stopped.values()) <= {0}, [link.log() for link in self.links]

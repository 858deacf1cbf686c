"""A broker as examples/fleet makes it: mosquitto with that configuration, these access lists and certificates of `ca`.

Everything runs inside scripts/private: /etc/mosquitto and /var/lib/mosquitto belong to the test.
"""

import contextlib
import pathlib
import signal
import socket
import ssl
import subprocess
import threading
import time

import paho.mqtt.client as mqtt
from waiting import wait_until

FLEET = pathlib.Path(__file__).resolve().parents[2] / "examples/fleet"
HOST = "localhost"
BOXES, USERS = 8883, 8884  # the ports
CONF = pathlib.Path("/etc/mosquitto/mosquitto.conf")
SAVED = pathlib.Path("/var/lib/mosquitto/mosquitto.db")


# matches(filter, topic)
matches = mqtt.topic_matches_sub


def run(*command, check=True, **options):
    return subprocess.run([str(word) for word in command], check=check, text=True, capture_output=True, **options)


class Authority:
    """What examples/fleet/ca makes in a directory."""

    def __init__(self, directory):
        self.directory = pathlib.Path(directory)
        self.ca("init", self.directory)
        self.trusted = self.directory / "fleet-ca/ca.pem"

    @staticmethod
    def ca(*words, check=True):
        return run(FLEET / "ca", *words, check=check)

    def make(self, kind, *names, days=None):
        """Certificates of a kind: "broker", "box" or "user". Returns the first one, without its ending."""
        self.ca(kind, self.directory, *names, *([] if days is None else ["--days", days]))
        return self.directory / kind / names[0]

    def revoke(self, kind, name):
        self.ca("revoke", self.directory, kind, name)


class Broker:
    """mosquitto, not started yet. `host` is what the certificate says."""

    def __init__(self, authority, host=HOST):
        self.authority = authority
        self.host = host
        self.log = pathlib.Path("/run/mosquitto.log")
        self.process = None
        authority.make("broker", host)
        run(FLEET / "install-broker", authority.directory, host)
        with CONF.open("a") as conf:
            conf.write("log_type information\n")  # for reload()

    def start(self):
        """Returns when both ports take connections."""
        with self.log.open("a") as log:
            self.process = subprocess.Popen(["mosquitto", "-c", str(CONF)], stdout=log, stderr=log)
        for port in (BOXES, USERS):
            wait_until(lambda: self.listens(port), lambda: f"port {port}: {self.log.read_text()}")
        return self

    def listens(self, port):
        assert self.process.poll() is None, self.log.read_text()
        with contextlib.suppress(OSError), socket.create_connection((self.host, port), timeout=5):
            return True
        return False

    def kill(self):
        self.process.kill()
        self.process.wait()

    def stop(self):
        """As the service manager does it."""
        self.process.terminate()
        assert self.process.wait(60) == 0

    def reload(self):
        """Returns when the broker has read its files again."""
        said = self.log.read_text().count("Reloading config.")
        self.process.send_signal(signal.SIGHUP)
        wait_until(lambda: self.log.read_text().count("Reloading config.") > said, "the broker reloads")

    def wait_saved(self, text):
        """Until a text is in the file that outlives the broker."""
        wait_until(lambda: SAVED.exists() and text.encode() in SAVED.read_bytes(), f"{text} is saved")


class Client(contextlib.AbstractContextManager):
    """A client with a certificate, connected. Throws ConnectionError if the broker does not accept it."""

    def __init__(self, broker, port, certificate, client_id="", trusted=None):
        self.client = mqtt.Client(client_id, protocol=mqtt.MQTTv5)
        self.client.tls_set(str(trusted or broker.authority.trusted), f"{certificate}.pem", f"{certificate}.key",
                            tls_version=ssl.PROTOCOL_TLS_CLIENT)
        self.happened, self.closed = {}, None
        self.messages = []
        self.changed = threading.Condition()
        for name in ("connect", "subscribe", "unsubscribe", "disconnect", "message"):
            setattr(self.client, f"on_{name}", getattr(self, f"_on_{name}"))
        try:
            self.client.connect(broker.host, port)
        except OSError as error:
            raise ConnectionError(str(error)) from error
        self.loop = threading.Thread(target=self._run)
        self.loop.start()
        self._wait(lambda: "connect" in self.happened or self.closed)
        if self.closed:
            self.__exit__()
            raise ConnectionError(self.closed)

    def __exit__(self, *_):
        with contextlib.suppress(OSError):  # the other side may have ended it
            self.client.disconnect()
        self.loop.join()

    def _run(self):
        """One connection, until it ends."""
        try:
            while self.client.loop() == mqtt.MQTT_ERR_SUCCESS:
                pass
        except OSError as error:  # the other side has ended TLS
            self.closed = str(error)
            self._tell("disconnect", True)

    def retained(self, pattern):
        """The retained messages that the broker gives for a subscription: {topic: payload}. What the broker sends before
        it acknowledges the end of the subscription is all."""
        self.messages.clear()
        _, number = self.client.subscribe(pattern, 0)
        self._wait(lambda: self.happened.get("subscribe") == number or self.closed)
        _, number = self.client.unsubscribe(pattern)
        self._wait(lambda: self.happened.get("unsubscribe") == number or self.closed)
        assert not self.closed, self.closed
        return {message.topic: message.payload.decode() for message in self.messages if message.retain}

    def _tell(self, name, value):
        with self.changed:
            self.happened[name] = value
            self.changed.notify_all()

    def _wait(self, condition, seconds=30):
        end = time.monotonic() + seconds
        with self.changed:
            while not condition():
                assert self.changed.wait(max(0.0, end - time.monotonic())), f"timeout after {seconds} s: {self.happened}"

    def _on_connect(self, client, data, flags, code, properties):
        if code == 0:
            self._tell("connect", True)
        else:
            self.closed = str(code)
            self._tell("refused", True)

    def _on_disconnect(self, client, data, code, properties=None):
        self.closed = f"closed: {code}"
        self._tell("disconnect", True)

    def _on_subscribe(self, client, data, number, *_):
        self._tell("subscribe", number)

    def _on_unsubscribe(self, client, data, number, *_):
        self._tell("unsubscribe", number)

    def _on_message(self, client, data, message):
        self.messages.append(message)


def publish(broker, port, certificate, topic, text, *options):
    """Publishes a retained message with QoS 1. True: the broker has accepted it; False: the client may not."""
    done = run("mosquitto_pub", "-V", "5", "-h", broker.host, "-p", port, "--cafile", broker.authority.trusted,
               "--cert", f"{certificate}.pem", "--key", f"{certificate}.key", "-q", 1, "-r", "-t", topic, "-m", text,
               *options, check=False)
    if "Not authorized" in done.stderr:
        return False
    assert (done.returncode, done.stderr) == (0, ""), done.stderr
    return True

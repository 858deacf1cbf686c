"""Steps of scripts/test-boot with a broker, the link and the controller's command, all on the one system."""

import json
import re

from machine import expect, show
from waiting import wait_until

FLEET = "/usr/share/doc/vqfleet/examples/fleet"
PKI = "/root/pki"
EXPOSURE_MAX = 1.5
USERS = [{"name": "vqlink", "may": ["apply", "status"]}]
VPN = 8
NAME = "fleet.branch.example"


def install(box, source, target, *options):
    box.do("install", "-D", *options, f"{PKI}/{source}", target)


def make_certificates(box):
    for words in (("init",), ("broker", "localhost"), ("box", "branch-1"), ("user", "controller")):
        box.do(f"{FLEET}/ca", words[0], PKI, *words[1:])
    box.do(f"{FLEET}/install-broker", PKI, "localhost")
    for program, kind, own, name in (("link", "box", "branch-1", "box"), ("fleet", "user", "controller", "controller")):
        place = f"/etc/kavel/{program}"
        install(box, "fleet-ca/ca.pem", f"{place}/fleet-ca.pem", "-m", "644")
        install(box, f"{kind}/{own}.pem", f"{place}/{name}.pem", "-m", "644")
        install(box, f"{kind}/{own}.key", f"{place}/{name}.key", "-m", "400",
                *(("-o", "vqlink") if program == "link" else ()))
        text = box.machine.path(f"{FLEET}/{program}.json").read_text()
        box.machine.write(f"/etc/kavel/{program}.json", text.replace("broker.example", "localhost"))


def publish(box, address):
    """The VPN gets what is stored for it, with another address of one host."""
    message = json.loads(box.do("vqctl", "store", "export", str(VPN)))
    message["dnshosts"] = [host for host in message["dnshosts"] if host["domain"] != NAME]
    message["dnshosts"].append({"domain": NAME, "ip": address})
    box.machine.write("/root/change.json", json.dumps(message))
    show(box.do("vqfleet", "publish", "--box", "branch-1", "/root/change.json"))


def link(box):
    return int(box.machine.property("MainPID", "vqlink"))


def status_text(box):
    return box.machine.property("StatusText", "vqlink")


def expect_connected(box):
    wait_until(lambda: re.search("broker is connected.*agent answers", status_text(box)),
               lambda: f"the link says: {status_text(box)}", 90)
    show(status_text(box))


def expect_in_force(box, address):
    show(box.do("vqfleet", "wait", "--timeout", "90"))
    wait_until(lambda: box.ask(VPN, NAME) == [address], lambda: f"{NAME} is {box.ask(VPN, NAME)}")
    show(f"client_{VPN} asks for {NAME} -> {address}")


def serve(box):
    """A broker on the box: a message is published, the link brings it to the agent"""
    box.machine.write("/etc/hosts", "127.0.0.1 localhost\n")  # as a box has it that was installed
    make_certificates(box)
    box.do("systemctl", "restart", "mosquitto")
    box.configure(7, 8, 9, users=USERS)
    with box.no_query_lost("restart with the link's user"):
        box.do("systemctl", "restart", "vqagent")
    box.do("systemctl", "start", "vqlink")
    expect_connected(box)
    publish(box, "192.168.8.77")
    expect_in_force(box, "192.168.8.77")
    show(box.do("vqfleet", "status", "--all"))


def check_sandbox(box):
    """The link runs as its own user without any right, and can write nowhere"""
    exposure = box.do("systemd-analyze", "security", "--no-pager", "vqlink").strip().splitlines()[-1]
    show(exposure)
    expect(float(re.search(r"level for vqlink.service: ([0-9.]+)", exposure)[1]) <= EXPOSURE_MAX, exposure)
    user = box.do("id", "--user", "vqlink").strip()
    expect(user != "0", "the user of the link is root")
    for key, wanted in (("CapBnd", "0" * 16), ("CapEff", "0" * 16), ("NoNewPrivs", "1"), ("Seccomp", "2"),
                        ("Uid", "\t".join([user] * 4))):
        expect(box.of_process(link(box), key) == wanted, f"the link: {key} is {box.of_process(link(box), key)}")
    box.expect_writable(link(box), ())
    for words in (("vqctl", "stop", "--vpn", str(VPN)), ("vqctl", "store", "list"), ("cat", "/etc/kavel/fleet/controller.key")):
        refused = box.machine.run("setpriv", "--reuid=vqlink", "--regid=vqlink", "--clear-groups", *words)
        expect(refused.returncode != 0, f"the user of the link may run {' '.join(words)}")


def bring_the_last_message(box):
    """After the reboots the link is connected again; what is published while it is stopped comes as one message"""
    expect_connected(box)
    box.do("systemctl", "stop", "vqlink")
    for last in (78, 79, 80):
        publish(box, f"192.168.8.{last}")
    box.do("systemctl", "start", "vqlink")
    expect_in_force(box, "192.168.8.80")
    show(box.do("vqctl", "history", str(VPN)))
    history = json.loads(box.do("vqctl", "history", "--json", str(VPN)))["messages"]
    numbers = [entry["revision"] for entry in history if (entry["revision"] or "").isdigit()]
    expect(numbers == ["4", "1"], f"the agent was given the revisions {numbers}")


def remove_broker(box):
    """What these steps have left beside the packages."""
    box.do("systemctl", "stop", "mosquitto")
    box.do("sh", "-c", "rm -rf /etc/hosts /etc/mosquitto/kavel /var/lib/mosquitto/*")
    box.do("chown", "mosquitto:root", "/var/lib/mosquitto")
    box.do("chmod", "755", "/var/lib/mosquitto")

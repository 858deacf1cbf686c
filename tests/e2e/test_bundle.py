"""One archive for a ticket: with an agent, without one, and with one that hangs. Redacted, it names nobody."""

import json
import os
import re
import signal
import socket
import stat
import tarfile

import pytest

from box import CONFIG, STORE, expect, instance_pid, message, run, vpn_config

NAMES = ["nas.branch-seven.example", "printer.branch-seven.example", "mail.partner.example", "branch-seven.example",
         "corp-net.example", "agent.json.example", "odd.conf"]
ADDRESSES = ["192.168.7.10", "192.168.7.20", "10.7.0.53", "10.7.0.54", "fd00:7::54", "192.168.7.1", "10.7.0.1"]
MESSAGE = message(
    persistentflag=True,
    dnshosts=[{"domain": NAMES[0], "ip": ADDRESSES[0]}, {"domain": NAMES[1], "ip": ADDRESSES[1]},
              {"domain": NAMES[5], "ip": ADDRESSES[1]}, {"domain": NAMES[6], "ip": ADDRESSES[1]}],
    dnsmxhost=[{"sourcedomain": NAMES[3], "targetdomain": NAMES[2], "preference": 10}],
    dnsservers=[{"dnsserver": ADDRESSES[2]}],
    dnsproxies=[{"domains": [NAMES[4]], "serverips": [ADDRESSES[3]]}])


@pytest.fixture
def serving(box):
    box.configure(vpn_config(7), persistence=True, store=str(STORE))
    box.start()
    box.apply(MESSAGE)
    expect(ADDRESSES[0], NAMES[0])
    run("ip", "-n", "vpn_7", "address", "add", f"{ADDRESSES[4]}/64", "dev", "lan1")
    yield box
    run("ip", "-n", "vpn_7", "address", "del", f"{ADDRESSES[4]}/64", "dev", "lan1")


class Bundle:
    def __init__(self, box, path, *options):
        self.done = box.vqctl("bundle", "--output", path, *options)
        assert self.done.returncode == 0, self.done.stderr
        assert stat.S_IMODE(path.stat().st_mode) == 0o600
        self.files = {}
        with tarfile.open(path) as archive:
            for member in archive.getmembers():
                top, _, name = member.name.partition("/")
                assert re.fullmatch(r"vqbundle-.+-\d{8}T\d{6}Z", top) and member.mode == 0o600
                self.files[name] = archive.extractfile(member).read()
                self.directory = top

    def text(self, name):
        return self.files[name].decode()

    def everything(self):
        return self.directory + "\n" + "\n".join(f"{name}\n{content.decode(errors='replace')}"
                                                 for name, content in self.files.items())


def test_a_bundle_holds_what_is_known(serving, tmp_path):
    bundle = Bundle(serving, tmp_path / "b.tar.gz")

    assert bundle.text("about.txt").startswith("vqctl ")
    assert "vpn_7" in bundle.text("agent/status.txt")
    assert json.loads(bundle.text("agent/status.json"))
    assert json.loads(bundle.text("agent/vpn_7/stored.json"))["DnsHost"][0]["Domain"] == NAMES[0]
    assert json.loads(bundle.text("etc/kavel/agent.json"))["persistence"] is True
    assert NAMES[0] in bundle.text("etc/kavel/dnsmasq/vpn_7/hosts")
    assert "mx-host" in bundle.text("etc/kavel/dnsmasq/vpn_7/dnsmasq.d/Mxhost.conf")
    assert bundle.text("run/kvl_dns_vpn_7.pid").strip() == str(instance_pid())
    assert bundle.files["run/kavel/vpn_7.inforce"] and "run/kavel/agent.sock" not in bundle.files
    assert "vqagent" in bundle.text("processes.txt") and f"process {instance_pid()}:" in bundle.text("processes.txt")
    assert {"lan0", "lan1", "wan0"} <= {link["ifname"] for link in
                                        json.loads(bundle.text("namespaces/vpn_7/addresses.json"))}
    assert "199" in {route.get("table") for route in json.loads(bundle.text("namespaces/vpn_7/routes.json"))}
    assert "199" in {rule["table"] for rule in json.loads(bundle.text("namespaces/vpn_7/rules.json"))}
    assert "kavel_dns" in bundle.text("namespaces/vpn_7/nftables.json")
    assert bundle.text("dnsmasq.txt").startswith("Dnsmasq version")
    assert "max_user_instances: " in bundle.text("limits.txt") and "ID=" in bundle.text("usr/lib/os-release")
    assert not [name for name in bundle.files if name.startswith("store/")]
    assert f"{tmp_path}/b.tar.gz: {len(bundle.files)} files, " in bundle.done.stdout
    assert "it holds names, addresses and the log" in bundle.done.stdout


def test_a_bundle_without_an_agent_holds_the_store(serving, tmp_path):
    serving.agent.kill()
    serving.agent.wait()

    bundle = Bundle(serving, tmp_path / "b.tar.gz")

    assert "agent/status.txt: cannot reach the agent" in bundle.text("notes.txt")
    assert bundle.files["store/agent.db"].startswith(b"SQLite format 3")
    assert NAMES[0] in bundle.text("etc/kavel/dnsmasq/vpn_7/hosts")
    assert f"process {instance_pid()}:" in bundle.text("processes.txt")


def test_a_bundle_does_not_wait_for_an_agent_that_hangs(serving, tmp_path):
    os.kill(serving.agent.pid, signal.SIGSTOP)
    try:
        bundle = Bundle(serving, tmp_path / "b.tar.gz")
    finally:
        os.kill(serving.agent.pid, signal.SIGCONT)

    assert "agent/status.txt: the agent did not reply within 5 s" in bundle.text("notes.txt")
    assert bundle.text("notes.txt").count("did not reply") == 1
    assert "not asked for: the agent does not answer" in bundle.text("notes.txt")
    assert bundle.files["store/agent.db"]


def test_a_broken_box_has_a_bundle(box, tmp_path):
    """No agent, no directories, and a configuration that is none."""
    box.configure()
    CONFIG.write_text("{ broken")
    bundle = Bundle(box, tmp_path / "b.tar.gz")
    assert bundle.text("etc/kavel/agent.json") == "{ broken"
    assert "namespaces/vpn_7/nftables.json" in bundle.files, "all namespaces are looked at"


@pytest.fixture
def follower():
    """The host has a name that tells whose it is."""
    before = socket.gethostname()
    socket.sethostname("gateway-acme")
    yield "gateway-acme"
    socket.sethostname(before)


def test_a_redacted_bundle_has_no_name_and_no_address(serving, follower, tmp_path):
    plain = Bundle(serving, tmp_path / "plain.tar.gz").everything()
    bundle = Bundle(serving, tmp_path / "b.tar.gz", "--redact")

    text = bundle.everything()
    for word in [*NAMES, *ADDRESSES, follower]:
        assert word in plain, f"{word} would have been there"
        assert not re.search(rf"(?<![\w.]){re.escape(word)}(?![\w.])", text), word
        assert word not in text, word
    for mac in re.findall(r'"address": ?"((?:[0-9a-f]{2}:){5}[0-9a-f]{2})"', plain):
        assert mac == "00:00:00:00:00:00" or mac not in text
    assert sorted(bundle.files) == sorted(name for name in bundle.files if follower not in name)
    assert "names and addresses are replaced" in bundle.done.stdout


def test_a_redacted_bundle_tells_the_same_name_by_the_same_token(serving, tmp_path):
    bundle = Bundle(serving, tmp_path / "b.tar.gz", "--redact")

    (first, *_) = bundle.text("etc/kavel/dnsmasq/vpn_7/hosts").splitlines()
    address, name = first.split()
    assert re.fullmatch(r"ip-\d+", address) and re.fullmatch(r"host-\d+(\.host-\d+)?\.redacted", name)
    stored = json.loads(bundle.text("agent/vpn_7/stored.json"))
    assert stored["DnsHost"][0] == {"Ip": address, "Domain": name}
    proxy, = re.findall(r"server=/(\S+?)/(\S+)\n", bundle.text("etc/kavel/dnsmasq/vpn_7/dnsmasq.d/DnsProxy.conf"))[:1]
    assert proxy == (stored["DnsProxy"][0]["Domain"], stored["DnsProxy"][0]["ServerIp"].split(",")[0])
    server = bundle.text("etc/kavel/dnsmasq/vpn_7/resolv.conf").split()[1]
    routed = {route["dst"] for route in json.loads(bundle.text("namespaces/vpn_7/routes.json"))
              if route.get("table") == "199"}
    assert server in routed, "the route to the upstream server can be followed"
    assert bundle.text("run/kavel/vpn_7.inforce").endswith("(the rest is left out: it cannot be redacted)\n")


def test_a_redacted_bundle_without_an_agent_leaves_the_store_out(serving, tmp_path):
    serving.agent.kill()
    serving.agent.wait()
    bundle = Bundle(serving, tmp_path / "b.tar.gz", "--redact")
    assert bundle.text("store/agent.db") == "left out: it cannot be redacted\n"
    assert not [word for word in [*NAMES, *ADDRESSES] if word in bundle.everything()]


def test_no_file_is_replaced(running, tmp_path):
    path = tmp_path / "b.tar.gz"
    path.write_text("mine")
    done = running.vqctl("bundle", "-o", path)
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr == f"vqctl: {path}: cannot be written: File exists\n"
    assert path.read_text() == "mine"
    assert running.vqctl("bundle", "-o", tmp_path / "none" / "b.tar.gz").returncode == 2


def test_the_name_of_the_file_tells_host_and_time(running, follower, tmp_path):
    for options, name in (((), rf"vqbundle-{follower}-\d{{8}}T\d{{6}}Z\.tar\.gz"),
                          (("--redact",), r"vqbundle-redacted-\d{8}T\d{6}Z\.tar\.gz")):
        shown = json.loads(running.vqctl("bundle", "--json", *options, cwd=tmp_path).stdout)
        assert shown["schema"] == 1 and re.fullmatch(name, shown["file"]), shown
        assert (tmp_path / shown["file"]).stat().st_size == shown["bytes"]
        assert shown["redacted"] is bool(options) and isinstance(shown["notes"], list)


def test_a_full_disk_leaves_nothing(running, tmp_path):
    run("mount", "-t", "tmpfs", "-o", "size=4k", "tmpfs", tmp_path)
    try:
        done = running.vqctl("bundle", "-o", tmp_path / "b.tar.gz")
        assert done.returncode == 2 and "cannot be written" in done.stderr
        assert list(tmp_path.iterdir()) == []
    finally:
        run("umount", tmp_path)

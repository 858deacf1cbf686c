"""The steps of scripts/test-boot, in their order: each begins where the one before it ended. The first argument is the
directory of a Debian root, the others are the packages."""

import contextlib
import fcntl
import json
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import time

import fleet_steps as fleet
import readme
from machine import HERE, PLACE, Machine, Queries, expect, run, say, show
from waiting import wait_until

SCRIPTS = HERE.parents[1] / "scripts"
PACKAGING = HERE.parents[1] / "packaging"
EXAMPLES = HERE.parents[1] / "examples"
README_PLACE = "/root/kavel"
README_BLOCKS = ("install", "interface", "configuration", "start", "message", "answer", "status")
ANYWHERE = "192.0.2.53"  # a resolver that does not exist: the steering rule leads its queries to the instance
EXPOSURE_MAX = 3.5
DOWN_MAX = 30.0
RATE = 1000
# CAP_KILL, SETGID, SETUID, NET_BIND_SERVICE, NET_ADMIN, NET_RAW, SYS_PTRACE, SYS_ADMIN
CAPABILITIES = sum(1 << number for number in (5, 6, 7, 10, 12, 13, 19, 21))

WRITABLE = ("/etc/kavel", "/run", "/var/lib/kavel")

# Namespaces, links and upstream servers of VPNs, as another service of the box makes them.
LAB_UNIT = """
[Unit]
Description=Namespaces of the VPNs
{order}
[Service]
Type=oneshot
RemainAfterExit=yes
ExecStartPre=/bin/sleep {delay}
ExecStart=/bin/bash /opt/boot/lab up 7
ExecStart=/bin/bash /opt/boot/lab up 8
[Install]
WantedBy=multi-user.target
"""

# What a system changes by itself, and what the package manager keeps about its own work.
CHANGES = re.compile(r"/(opt/boot|root|tmp|var/(cache|log|tmp|lib/apt|lib/systemd/(catalog|timers|random-seed)"
                     r"|lib/dpkg/(available|lock|status|triggers)))[^ ]*")


class Box:
    def __init__(self, root, packages):
        self.packages = [pathlib.Path(package) for package in packages]
        self.names = [package.name.split("_")[0] for package in self.packages]
        self.machine = Machine(root)
        self.do = self.machine.do

    # ---- what an operator types ----

    def configure(self, *vpns, **changes):
        """Writes agent.json. Nothing learns of it yet."""
        config = {"platform": "cpe", "persistence": True, "vpns": [
            {"id": vpn, "lan": ["lan0", "lan1"], "wan": [{"name": "wan0"}]} for vpn in vpns], **changes}
        self.machine.write("/etc/kavel/agent.json", json.dumps(config))

    def type_in(self, directory, typed):
        """Types lines in a shell. Returns what they print."""
        return self.machine.run("bash", "-c", f"cd {directory} && exec 2>&1\n{typed}").stdout

    def apply(self, message):
        show(self.do("vqctl", "apply", "-", input=json.dumps(message)))

    def install(self, directory):
        names = [str(name) for name in sorted(self.machine.path(directory).glob("*.deb"))]
        expect(names, f"no packages in {directory}")
        files = [f"{directory}/{pathlib.Path(name).name}" for name in names]
        self.do("apt-get", "install", "--yes", *files)

    # ---- what is there ----

    def ask(self, vpn, *question, server=ANYWHERE):
        asked = self.machine.run("ip", "netns", "exec", f"client_{vpn}", "dig", "+short", "+time=1", "+tries=1",
                                 f"@{server}", *question)
        return [line for line in asked.stdout.splitlines() if not line.startswith(";")]

    def expect_answers(self, *vpns):
        """A name of the VPN's own, one of an upstream server, and one of a forward over TCP."""
        for vpn in vpns:
            answers = {("nas.branch.example",): f"192.168.{vpn}.10", (f"vpn{vpn}.example.net",): f"198.51.100.{vpn}",
                       ("+tcp", "crm.corp.example"): "198.51.100.77"}
            for question, answer in answers.items():
                wait_until(lambda: self.ask(vpn, *question) == [answer],
                           lambda: f"client_{vpn}: dig {' '.join(question)}: not {answer} but {self.ask(vpn, *question)}")
            show(f"client_{vpn} asks {ANYWHERE}: {', '.join(f'{asked[-1]} -> {got}' for asked, got in answers.items())}")

    def expect_served(self, *vpns):
        """They are answered, and the status has no problem."""
        self.expect_answers(*vpns)
        for vpn in vpns:
            status = ["vqctl", "status", "--vpn", str(vpn)]
            wait_until(lambda: self.machine.run(*status).returncode == 0, lambda: self.machine.run(*status).stdout)

    def instance(self, vpn):
        return int(self.machine.path(f"/run/kvl_dns_vpn_{vpn}.pid").read_text())

    def instances(self):
        found = self.machine.run("pgrep", "--full", "pid-file=/var/run/kvl_dns").stdout
        return sorted(int(pid) for pid in found.split())

    def agent(self):
        return int(self.machine.property("MainPID"))

    def state(self):
        return self.machine.property("ActiveState")

    def of_process(self, pid, key):
        status = self.machine.path(f"/proc/{pid}/status").read_text()
        return re.search(rf"^{key}:\s*(.*)$", status, re.MULTILINE)[1]

    def expect_writable(self, pid, writable):
        """These directories alone can be written in the sandbox of a process."""
        for directory in ("/etc/kavel", "/run", "/var/lib/kavel", "/", "/etc", "/run/systemd", "/usr", "/var/lib"):
            tried = self.machine.run("nsenter", "--mount", f"--target={pid}", "test", "-w", directory)
            expect((tried.returncode == 0) == (directory in writable), f"process {pid}: {directory}: {tried.returncode}")

    def files(self):
        """Every file of the system, with type, mode and owner, but not what changes by itself."""
        listed = self.do("find", "/", "-xdev", "-printf", "%p %y %m %u:%g\n").splitlines()
        return {line for line in listed if not CHANGES.match(line)}

    def users(self):
        return self.do("cat", "/etc/passwd", "/etc/group")

    @contextlib.contextmanager
    def no_query_lost(self, what, rate=RATE):
        """The clients of VPN 7 and 8 ask meanwhile; the instances stay the same processes."""
        before = self.instances()
        clients = {f"client_{vpn}": (ANYWHERE, "nas.branch.example") for vpn in (7, 8)}
        with Queries(self.machine, clients, rate / len(clients)) as queries:
            yield
        sent, lost = (sum(result[key] for result in queries.results.values()) for key in ("sent", "lost"))
        longest = max(result["longest"] for result in queries.results.values())
        show(f"{what}: {sent} queries, {lost} lost, {1000 * longest:.0f} ms at most without an answer")
        expect(sent >= rate, f"only {sent} queries were sent")
        expect(lost == 0, f"{lost} of {sent} queries were lost")
        expect(self.instances() == before, f"the instances were {before} and are {self.instances()}")


def message(vpn, **changes):
    text = (EXAMPLES / "branch-office.json").read_text()
    fields = json.loads(text.replace("192.168.7.", f"192.168.{vpn}.").replace("10.7.0.", f"10.{vpn}.0."))
    return {**fields, "vpnid": vpn, **changes}


# ---- the steps ----


def boot(box):
    """A Debian system boots"""
    box.machine.boot()
    show(box.do("systemctl", "--version").splitlines()[0])
    packages = box.machine.path("/opt/boot/packages")
    packages.mkdir(parents=True)
    for package in box.packages:
        shutil.copy(package, packages)
    shutil.copy(SCRIPTS / "lab", box.machine.path("/opt/boot/lab"))
    box.machine.write("/etc/systemd/system/lab.service", LAB_UNIT.format(order="Before=vqagent.service", delay=0))
    box.do("systemctl", "enable", "lab.service")
    box.files_before, box.users_before = box.files(), box.users()


def follow_the_readme(box):
    """README.md: from the packages to the first answer, by its lines alone"""
    shutil.copytree(box.machine.path("/opt/boot/packages"), box.machine.path(f"{README_PLACE}/build/package"))
    blocks = readme.blocks()
    for name in README_BLOCKS:
        readme.run_block(blocks[name], lambda typed: box.type_in(README_PLACE, typed))
        show("\n".join(f"# {command.typed.splitlines()[0]}" for command in blocks[name]))


def test_the_packages(box):
    """The packages' own test: a message is applied, and its answer is asked for"""
    for command in (["vqctl", "stop", "--all"], ["ip", "link", "delete", "client7"], ["ip", "netns", "delete", "vpn_7"]):
        box.do(*command)
    shutil.copy(PACKAGING / "debian/tests/answer", box.machine.path("/opt/boot/answer"))
    show(box.do("/opt/boot/answer"))
    box.do("apt-get", "purge", "--yes", *box.names)


def install(box):
    """The packages are installed; without a configuration the service is enabled and does not run"""
    box.install("/opt/boot/packages")
    show(box.do("dpkg-query", "--show", *box.names))
    expect(box.do("systemctl", "is-enabled", "vqagent").strip() == "enabled", "the unit is not enabled")
    box.do("systemctl", "start", "vqagent")
    expect(box.state() == "inactive", f"the unit is {box.state()}")
    limit = box.do("grep", "-rhs", "^fs.inotify.max_user_instances", "/usr/lib/sysctl.d", "/etc/sysctl.d")
    expect(int(limit.split("=")[1]) > 1000, f"the limit of inotify instances is {limit}")


def check_sandbox(box):
    """The service runs with eight capabilities in a sandbox, and so do its instances"""
    exposure = box.do("systemd-analyze", "security", "--no-pager", "vqagent").strip().splitlines()[-1]
    show(exposure)
    expect(float(re.search(r"level for vqagent.service: ([0-9.]+)", exposure)[1]) <= EXPOSURE_MAX, exposure)
    for pid in (box.agent(), box.instance(7)):
        for key, wanted in (("CapBnd", f"{CAPABILITIES:016x}"), ("NoNewPrivs", "1"), ("Seccomp", "2")):
            expect(box.of_process(pid, key) == wanted, f"process {pid}: {key} is {box.of_process(pid, key)}")
        box.expect_writable(pid, WRITABLE)
    expect(box.of_process(box.instance(7), "Uid").split()[1] != "0", "the instance runs as root")


def serve_pop(box):
    """A POP: one instance in the box's own namespace"""
    box.do("bash", "/opt/boot/lab", "pop")
    box.machine.write("/etc/kavel/agent.json", (EXAMPLES / "agent-pop.json").read_text())
    box.do("systemctl", "start", "vqagent")
    box.apply(json.loads((EXAMPLES / "pop.json").read_text()))
    asked = wait_until(lambda: box.machine.run("ip", "netns", "exec", "branch", "dig", "+short", "+time=1", "+tries=1",
                                               f"@{ANYWHERE}", "www.example.net").stdout.strip(), "an answer")
    expect(asked == "198.51.100.10", f"the branch got {asked}")
    show(f"branch: dig @{ANYWHERE} www.example.net -> {asked}")
    box.apply(json.loads((EXAMPLES / "pop-off.json").read_text()))
    box.do("systemctl", "stop", "vqagent")
    expect(box.instances() == [], "an instance is left")
    box.do("sh", "-c", "rm -rf /run/kavel /etc/kavel/dnsmasq /var/lib/kavel/*")


def serve_two_vpns(box):
    """A CPE: two VPNs are configured and get their messages"""
    box.do("systemctl", "start", "lab")
    box.configure(7, 8)
    box.do("systemctl", "start", "vqagent")
    expect(box.machine.property("StatusText") == "serving 2 VPNs", box.machine.property("StatusText"))
    for vpn in (7, 8):
        box.apply(message(vpn))
    box.expect_served(7, 8)
    show(box.do("vqctl", "status"))
    journal = box.do("journalctl", "--identifier=dnsmasq", f"_PID={box.instance(7)}", "--output=cat")
    expect("nas" in journal or "read /etc/kavel/dnsmasq/vpn_7/hosts" in journal, "the instance logs nothing")


def reload_with_a_third_vpn(box):
    """The configuration is reloaded with a third VPN, whose namespace is made later"""
    with box.no_query_lost("reload"):
        box.configure(7, 8, 9)
        box.do("systemctl", "reload", "vqagent")
        status = ["vqctl", "status", "--vpn", "9"]
        told = wait_until(lambda: (now := box.machine.run(*status)).returncode == 1 and now.stdout + now.stderr,
                          "the status tells that the namespace is missing")
        expect("namespace vpn_9 does not exist" in told, told)
        box.do("bash", "/opt/boot/lab", "up", "9")
    box.apply(message(9, persistentflag=False))
    box.expect_served(7, 8, 9)


def refuse_a_mistake(box):
    """A reload with a mistake in the configuration changes nothing; a restart fails, and is not tried again"""
    good = box.machine.path("/etc/kavel/agent.json").read_text()
    box.machine.write("/etc/kavel/agent.json", good.replace('"cpe"', '"hub"'))
    box.do("systemctl", "reload", "vqagent")
    wait_until(lambda: "has a mistake" in box.machine.property("StatusText"), "the status text tells the mistake")
    show(box.machine.property("StatusText"))
    box.expect_served(7)
    with box.no_query_lost("failed restart"):
        expect(box.machine.run("systemctl", "restart", "vqagent").returncode != 0, "the restart succeeded")
        time.sleep(3)
        expect(box.state() == "failed" and box.machine.property("ExecMainStatus") == "2",
               f"{box.state()}, exit status {box.machine.property('ExecMainStatus')}")
        box.machine.write("/etc/kavel/agent.json", good)
        box.do("systemctl", "start", "vqagent")
    box.expect_served(7, 8, 9)


def kill_the_agent(box):
    """The agent is killed: it is started again, DNS goes on"""
    before = box.agent()
    with box.no_query_lost("kill -9"):
        box.do("kill", "-KILL", str(before))
        wait_until(lambda: box.state() == "active" and box.agent() not in (0, before), "the agent runs again")
        box.expect_served(7, 8, 9)
    show(f"process {before} was replaced by process {box.agent()}")


@contextlib.contextmanager
def settings(box, *lines):
    """The unit has these settings meanwhile, and was restarted with them."""
    drop_in = "/run/systemd/system/vqagent.service.d/hasty.conf"
    box.machine.write(drop_in, "\n".join(("[Service]", *lines, "")))
    box.do("systemctl", "daemon-reload")
    box.do("systemctl", "restart", "vqagent")
    yield
    box.machine.path(drop_in).unlink()
    box.do("systemctl", "daemon-reload")
    box.do("systemctl", "restart", "vqagent")


def hang_the_agent(box):
    """The agent hangs: the watchdog replaces it, DNS goes on"""
    with settings(box, "WatchdogSec=2", "TimeoutAbortSec=1"):
        before = box.agent()
        with box.no_query_lost("hang"):
            box.do("kill", "-STOP", str(before))
            wait_until(lambda: box.state() == "active" and box.agent() not in (0, before), "the agent runs again", 30)
            box.expect_served(7, 8, 9)


def start_slowly(box):
    """A start that takes longer than systemd waits: the agent extends the time"""
    mark = box.machine.path("/run/kavel/vpn_9.launch")  # of a launch that never becomes visible: it is waited for, 2 s
    with settings(box, "TimeoutStartSec=1"), mark.open("w") as held:
        fcntl.flock(held, fcntl.LOCK_SH)
        began = time.monotonic()
        box.do("systemctl", "restart", "vqagent")
        took = time.monotonic() - began
    show(f"it took {took:.1f} s")
    expect(took > 1.5, "the start was not slow")
    box.expect_served(7, 8, 9)


def stop_and_start(box):
    """The service is stopped and started: DNS goes on"""
    with box.no_query_lost("stop and start"):
        box.do("systemctl", "stop", "vqagent")
        expect(box.state() == "inactive", f"the unit is {box.state()}")
        box.expect_answers(7, 8, 9)
        expect(box.machine.path("/run/kavel/vpn_7.inforce").exists(), "/run/kavel was removed")
        box.do("systemctl", "start", "vqagent")
    box.expect_served(7, 8, 9)


def expect_stored(box):
    box.expect_served(7, 8)
    expect(len(box.instances()) == 2, "an instance of a VPN that is not stored runs")


def reboot(box):
    """The box is rebooted while a client has an idle connection: what is stored is answered again"""
    namespace = box.machine.path("/run/netns/client_7")
    connect = "import socket; peer = socket.create_connection(('192.168.7.1', 53)); print(); peer.recv(1)"
    with subprocess.Popen(["nsenter", f"--net={namespace}", "--", sys.executable, "-c", connect],
                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL) as client:
        expect(client.stdout.read(1), "the client has no connection")
        down = box.machine.reboot()
        client.kill()
    show(f"down after {down:.1f} s")
    expect(down < DOWN_MAX, "it took too long")
    expect_stored(box)


def reboot_with_late_namespaces(box):
    """The box is rebooted, and its namespaces are made 3 s after the service has started"""
    box.machine.write("/etc/systemd/system/lab.service", LAB_UNIT.format(order="After=vqagent.service", delay=3))
    box.do("systemctl", "daemon-reload")
    show(f"down after {box.machine.reboot():.1f} s")
    expect_stored(box)
    expect("does not exist" in box.do("journalctl", "--boot", "--unit=vqagent"), "the namespaces were not late")


def higher_version(package, directory):
    """Builds the same package with a higher version."""
    content = directory / package.stem
    done = run("dpkg-deb", "--raw-extract", package, content)
    expect(done.returncode == 0, done.stderr)
    control = content / "DEBIAN/control"
    text = control.read_text()
    version = re.search(r"^Version: (.*)$", text, re.MULTILINE)[1]
    text = text.replace(f"Version: {version}\n", f"Version: {version}+again\n")
    control.write_text(text.replace(f"(= {version})", f"(= {version}+again)"))
    done = run("dpkg-deb", "--root-owner-group", "--build", content, directory)
    expect(done.returncode == 0, done.stderr)
    shutil.rmtree(content)


def upgrade(box):
    """The packages are upgraded while clients ask"""
    packages = box.machine.path("/opt/boot/upgrade")
    packages.mkdir()
    for package in box.packages:
        higher_version(package, packages)
    before = box.agent()
    with box.no_query_lost("upgrade"):
        box.install("/opt/boot/upgrade")
        wait_until(lambda: box.state() == "active" and box.agent() != before, "the new agent runs")
    version = box.do("dpkg-query", "--show", "--showformat=${Version}", "vqagent")
    expect(version.endswith("+again"), f"the version is {version}")
    program = box.do("readlink", f"/proc/{box.agent()}/exe").strip()
    expect(program == "/usr/sbin/vqagent", f"the agent is {program}")
    box.expect_served(7, 8)
    fleet.expect_connected(box)
    program = box.do("readlink", f"/proc/{fleet.link(box)}/exe").strip()
    expect(program == "/usr/sbin/vqlink", f"the link is {program}")


def remove(box):
    """The packages are removed: instances, rules and routes are gone"""
    box.do("apt-get", "remove", "--yes", *box.names)
    expect(box.instances() == [], f"instances {box.instances()} are left")
    for vpn in (7, 8):
        namespace = f"vpn_{vpn}"
        ruleset = box.do("ip", "netns", "exec", namespace, "nft", "list", "ruleset")
        expect(not ruleset, f"{namespace}: {ruleset}")
        routes = box.machine.run("ip", "-n", namespace, "route", "show", "table", "199").stdout
        expect(not routes, f"{namespace}: {routes}")
        rules = box.do("ip", "-n", namespace, "rule", "show")
        expect("199" not in rules, f"{namespace}: {rules}")
    expect(box.machine.path("/etc/kavel/agent.json").exists(), "the configuration is not kept")


def purge(box):
    """The packages are purged: nothing is left"""
    fleet.remove_broker(box)
    box.do("dpkg", "--purge", *box.names)  # apt-get does not know packages that have left nothing
    left = sorted(box.files() ^ box.files_before)
    expect(not left, "changed files:\n" + "\n".join(left))
    expect(box.users() == box.users_before, "users or groups are left")
    leftovers = box.machine.run("sh", "-c", "ls -d /run/kavel* /run/kvl*").stdout
    expect(not leftovers, f"left: {leftovers}")
    units = box.machine.run("systemctl", "list-unit-files", "--no-legend", "vq*").stdout
    expect(not units and box.state() == "inactive", f"the unit is {box.state()}: {units}")


STEPS = (boot, follow_the_readme, test_the_packages, install, serve_pop, serve_two_vpns, check_sandbox, reload_with_a_third_vpn, refuse_a_mistake,
         kill_the_agent, hang_the_agent, start_slowly, stop_and_start, fleet.serve, fleet.check_sandbox, reboot,
         reboot_with_late_namespaces, fleet.bring_the_last_message, upgrade, remove, purge)


def main():
    box = Box(sys.argv[1], sys.argv[2:])
    for step in STEPS:
        say(step.__doc__)
        try:
            step(box)
        except (AssertionError, OSError, subprocess.SubprocessError) as failure:
            box.machine.report()
            print(f"\nFAILED: {step.__name__}: {failure}", file=sys.stderr)
            return 1
    print("\nAll of it is as it should be.")
    return 0


if __name__ == "__main__":
    signal.signal(signal.SIGINT, signal.SIG_IGN)  # scripts/test-boot ends all of it
    sys.exit(main())

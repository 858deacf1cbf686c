"""A Debian system in memory that systemd has booted. Runs inside scripts/private, which ends all of it."""

import contextlib
import json
import pathlib
import subprocess
import sys
import threading
import time

from waiting import wait_until

HERE = pathlib.Path(__file__).resolve().parent
PLACE = pathlib.Path("/run/boot")
ROOT = PLACE / "root"
CONSOLE = PLACE / "console"
REBOOT = 133  # the exit status of systemd-nspawn --keep-unit if the system wants to be started again
BOOT_TIMEOUT = 60.0


class Failure(AssertionError):
    """A step did not lead to what it must lead to."""


def say(text):
    print(f"\n== {text}", flush=True)


def show(text):
    for line in text.rstrip().splitlines():
        print(f"   {line}", flush=True)


def expect(is_right, what):
    if not is_right:
        raise Failure(what)


def run(*command, **options):
    return subprocess.run([str(word) for word in command], text=True, capture_output=True, check=False, **options)


def child_of(pid):
    with contextlib.suppress(OSError, ValueError, IndexError):
        return int(pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()[0])
    return None


class Machine:
    def __init__(self, lower):
        for name in ("upper", "work", "root"):
            (PLACE / name).mkdir(parents=True)
        done = run("mount", "-t", "overlay", "overlay", ROOT, "-o",
                   f"lowerdir={lower},upperdir={PLACE / 'upper'},workdir={PLACE / 'work'}")
        if done.returncode != 0:
            raise Failure(f"the root cannot be mounted: {done.stderr}")
        self.container = None
        self.leader = None

    def boot(self):
        """Returns when the system is up."""
        with CONSOLE.open("a") as console:
            self.container = subprocess.Popen(
                ["systemd-nspawn", "--boot", "--register=no", "--keep-unit", "--private-network", "--capability=all",
                 "--machine=box", f"--directory={ROOT}"], stdin=subprocess.DEVNULL, stdout=console, stderr=console)
        self.leader = wait_until(self.find_leader, "systemd answers", BOOT_TIMEOUT)
        state = self.run("systemctl", "is-system-running", "--wait", timeout=BOOT_TIMEOUT).stdout.strip()
        if state != "running":
            raise Failure(f"the system is {state}: {self.run('systemctl', '--failed', '--plain').stdout}")

    def find_leader(self):
        """The first process of the system, once systemd takes commands. Nothing before."""
        if self.container.poll() is not None:
            raise Failure(f"systemd-nspawn exited with {self.container.returncode}")
        leader = child_of(self.container.pid)
        return leader if leader and pathlib.Path(f"/proc/{leader}/root/run/systemd/private").exists() else None

    def reboot(self):
        """Returns when the system is up again: how long it took to go down, in seconds."""
        began = time.monotonic()
        self.run("systemctl", "reboot")
        try:
            status = self.container.wait(timeout=120)
        except subprocess.TimeoutExpired as error:
            raise Failure("the system does not go down") from error
        if status != REBOOT:
            raise Failure(f"systemd-nspawn exited with {status} instead of a reboot")
        down = time.monotonic() - began
        self.boot()
        return down

    def run(self, *command, **options):
        """Runs a command in all namespaces of the system."""
        return run("nsenter", f"--target={self.leader}", "--all", "--", "env", "-i",
                   "PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C.UTF-8", "DEBIAN_FRONTEND=noninteractive",
                   *command, **options)

    def do(self, *command, **options):
        """The same for a command that must succeed. Returns its output."""
        done = self.run(*command, **options)
        if done.returncode != 0:
            words = " ".join(str(word) for word in command)
            raise Failure(f"{words}: exit status {done.returncode}\n{done.stdout}{done.stderr}")
        return done.stdout

    def path(self, name):
        """A file of the running system, for this program."""
        return pathlib.Path(f"/proc/{self.leader}/root{name}")

    def write(self, name, text):
        path = self.path(name)
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)

    def property(self, name, unit="vqagent"):
        return self.do("systemctl", "show", f"--property={name}", "--value", unit).strip()

    def report(self):
        """Prints what somebody needs who looks for the reason of a failure."""
        sys.stdout.flush()
        if self.leader is None or self.container.poll() is not None:
            console = CONSOLE.read_text(errors="replace")[-2000:] if CONSOLE.exists() else ""
            print("The console ends with:", console, sep="\n", file=sys.stderr)
            return
        print("The journal ends with:", self.run("journalctl", "--no-pager", "--lines=60").stdout, sep="\n",
              file=sys.stderr)
        print(self.run("systemctl", "status", "--no-pager", "--full", "vqagent").stdout, file=sys.stderr)


class Queries:
    """Clients that send queries while the context is open. `clients` has for each network namespace the server and the
    name. Afterwards `results` has what became of the queries, by namespace."""

    def __init__(self, machine, clients, rate):
        self.results = {}
        self.running = {
            namespace: subprocess.Popen(
                ["nsenter", f"--net={machine.path(f'/run/netns/{namespace}')}", "--", sys.executable, "-B",
                 HERE / "queries.py", server, name, str(rate)],
                stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
            for namespace, (server, name) in clients.items()}

    def __enter__(self):
        time.sleep(0.5)
        return self

    def __exit__(self, *_):
        time.sleep(0.5)
        threads = [threading.Thread(target=self.end, args=(namespace,)) for namespace in self.running]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()

    def end(self, namespace):
        output, _ = self.running[namespace].communicate()
        self.results[namespace] = json.loads(output)

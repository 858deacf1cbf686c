"""A box for benchmarks: namespaces with nothing but lo, an agent with the module, and instances without the agent.

Runs inside scripts/private. Inside `disk`, files are on a real file system: durable writes have their real cost.
"""

import concurrent.futures
import contextlib
import os
import pathlib
import select
import shutil
import signal
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests/e2e"))

from box import (BUILD, CONFIG, DNSMASQ, STATE, Box, connect, instance_pid, instances, pid_file,  # noqa: E402
                 read_frame, run)
from load import Message, read_varint, result_of  # noqa: E402

from box_dns import inside  # noqa: E402

STORE = CONFIG.parent / "agent.db"
PROGRAM = "/usr/sbin/dnsmasq"
FILES = ("hosts", "dnsmasq.d/Mxhost.conf", "dnsmasq.d/ServerMap.conf", "resolv.conf", "dnsmasq.d/DnsProxy.conf")
WORKERS = 2  # concurrent programs that encode messages
INOTIFY = pathlib.Path("/proc/sys/fs/inotify/max_user_instances")
OTHER_WATCHES = 28  # inotify instances left for the box's own programs and the agent


def most_instances():
    """How many DNS instances can have an inotify instance each."""
    return int(INOTIFY.read_text()) - OTHER_WATCHES


@contextlib.contextmanager
def disk(path=CONFIG.parent, owner="root"):
    """Inside the block, this folder is on a real file system. Its files are removed afterwards."""
    with tempfile.TemporaryDirectory(prefix="kavel-bench-", dir="/var/tmp") as folder:
        os.chmod(folder, 0o755)  # dnsmasq reads its files as an unprivileged user
        shutil.chown(folder, owner)
        path.mkdir(exist_ok=True)
        run("mount", "--bind", folder, path)
        try:
            yield
        finally:
            run("umount", path)


def add_namespaces(vpns):
    run("ip", "-batch", "-", input="".join(f"netns add vpn_{vpn}\n" for vpn in vpns))
    for vpn in vpns:
        with inside(vpn):
            run("ip", "link", "set", "lo", "up")


def host_of(vpn):
    """The queried name: the last of a VPN's hosts."""
    return f"asked.vpn{vpn}.example"


def filler(vpn, count):
    return [(f"10.{number >> 16 & 255}.{number >> 8 & 255}.{number & 255}", f"host{number}.vpn{vpn}.example")
            for number in range(1, count)]


def hosts_message(vpn, count, address, operation, kept=False, enable=True):
    """A message with `count` hosts, the last of which is the queried one."""
    hosts = [{"domain": domain, "ip": ip} for ip, domain in [*filler(vpn, count), (address, host_of(vpn))]]
    return Message(vpn, dnshosts=hosts, dnsservers=None, operation=operation, persistentflag=kept, enable=enable)


def messages_for(vpns, *fields, **options):
    with concurrent.futures.ThreadPoolExecutor(WORKERS) as pool:
        return list(pool.map(lambda vpn: hosts_message(vpn, *fields, **options), vpns))


def write_hosts(vpn, count, address):
    """Writes the hosts file that such a message results in."""
    lines = [f"{ip} {domain}\n" for ip, domain in [*filler(vpn, count), (address, host_of(vpn))]]
    (DNSMASQ / f"vpn_{vpn}/hosts").write_text("".join(lines))


def contents_of(vpn):
    """The contents of the files that a message writes, by name."""
    return {file: (DNSMASQ / f"vpn_{vpn}" / file).read_bytes() for file in FILES}


def replace_durably(vpn, contents):
    """Writes these files as durably as a message does, and does nothing else."""
    for file, content in contents.items():
        replace_file_durably(DNSMASQ / f"vpn_{vpn}" / file, content)


def replace_file_durably(path, content):
    fresh = path.with_name(".bench")
    with fresh.open("wb") as file:
        file.write(content)
        file.flush()
        os.fsync(file.fileno())
    fresh.rename(path)
    folder = os.open(path.parent, os.O_RDONLY | os.O_DIRECTORY)
    os.fsync(folder)
    os.close(folder)


class Controllers:
    """Connections to the agent. Each can have one pending message."""

    def __init__(self, count=1):
        self.peers = [connect() for _ in range(count)]

    def send(self, one):
        self.send_all([one])

    def send_all(self, messages):
        free, busy = list(self.peers), {}
        for one in messages:
            if not free:
                free.append(self.receive_answer(busy))
            peer = free.pop()
            peer.sendall(one.request)
            busy[peer] = one
        while busy:
            self.receive_answer(busy)

    @staticmethod
    def receive_answer(busy):
        """The connection on which the next answer arrived. Throws if the message was refused."""
        peer = select.select(list(busy), [], [])[0][0]
        one, result = busy.pop(peer), result_of(read_frame(peer))
        if result < 0:
            raise RuntimeError(f"vpn {one.vpn}: refused with {result}")
        return peer

    def close(self):
        for peer in self.peers:
            peer.close()


@contextlib.contextmanager
def agent(vpns, members=None, **changes):
    """A box whose agent is ready and serves these VPNs. Stops the agent and all instances afterwards.

    `members` has further members of a VPN's configuration, by VPN; `changes` are those of the box's."""
    forget_what_is_in_force()
    box = Box()
    box.configure(*({"id": vpn, **(members or {}).get(vpn, {})} for vpn in vpns), log="notice", **changes)
    try:
        yield box.start()
    finally:
        if box.agent is not None:
            box.stop()
        stop_instances()


def forget_what_is_in_force():
    """As a restart of the box: what is kept in memory is gone."""
    for fact in STATE.glob("vpn_*"):
        fact.unlink()


def stop_instances():
    """Stops every running instance and removes the pid files."""
    for pid in instances():
        stop(pid)
    for leftover in pathlib.Path("/run").glob("kvl_dns_vpn_*.pid"):
        leftover.unlink()


def stop(pid):
    process = os.pidfd_open(pid)
    signal.pidfd_send_signal(process, signal.SIGTERM)
    exited = select.poll()
    exited.register(process, select.POLLIN)
    exited.poll()
    os.close(process)


def start_bare(vpn):
    """Runs the command that the agent runs for a VPN, in its namespace, but without a shell. Returns the pid."""
    words = [PROGRAM, "-C", f"{DNSMASQ}/vpn_{vpn}/dnsmasq.conf", "--dns-forward-max=1000", "--no-hosts",
             f"--pid-file={pid_file(vpn)}", "-k"]
    with inside(vpn):
        return os.posix_spawn(PROGRAM, words, os.environ)


def stop_bare(pid):
    os.kill(pid, signal.SIGTERM)
    os.waitpid(pid, 0)


def bytes_in(path, field):
    """The sum of all fields of a file in /proc that start with `field` and are in kB."""
    lines = pathlib.Path("/proc", str(path)).read_text().splitlines()
    return sum(int(line.split()[1]) * 1024 for line in lines if line.startswith(field))

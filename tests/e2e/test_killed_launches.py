"""The agent is killed in the middle of a launch: the message before or the one that is being applied is in force, whole."""

import contextlib
import json
import pathlib
import subprocess
import time

import pytest

from box import BUILD, DNSMASQ, expect, instance_pid, instances, pid_file, routes, tables, wait_until
from faults import ANYWHERE, end_agent, kept, log_since, row, serve


@pytest.fixture
def served(box):
    return serve(box)


def check_all_of_it(address):
    """Files, row, routes, rule and the one instance are those of the message with this address; None: of "off"."""
    if address is None:
        assert instances(7) == [] and not pid_file().exists() and tables() == [] and routes() == []
        assert json.loads(row()[0])["Enable"] is False
        return
    wait_until(lambda: pid_file().exists() and instances(7) == [instance_pid()], "one instance")
    expect(address, "nas.vpn7.example", server=ANYWHERE)
    assert (DNSMASQ / "vpn_7/hosts").read_text(encoding="utf-8") == f"{address} nas.vpn7.example\n"
    assert json.loads(row()[0])["DnsHost"] == [{"Ip": address, "Domain": "nas.vpn7.example"}]
    assert routes() == ["10.7.0.53"] and len(tables()) == 1


def is_traced(pid):
    lines = pathlib.Path(f"/proc/{pid}/status").read_text(encoding="ascii").splitlines()
    return any(line.startswith("TracerPid:") and line.split()[1] != "0" for line in lines)


@contextlib.contextmanager
def held_programs(agent):
    """Each program that the agent starts is held for 0.8 s before it is executed: until then its process is a copy of
    the one before."""
    holding = subprocess.Popen(["strace", "-f", "-qq", "-o", "/dev/null", "-e", "trace=execve", "-e",
                                "inject=execve:delay_enter=800000", "-p", str(agent.pid)])
    try:
        wait_until(lambda: is_traced(agent.pid), "the agent is traced")
        yield
    finally:
        holding.terminate()
        holding.wait()


@pytest.mark.parametrize("is_on", [True, False], ids=["on", "off"])
@pytest.mark.parametrize("moment", [0.1, 0.5, 0.9, 1.3, 1.7])
def test_an_agent_that_is_killed_in_a_launch_leaves_one_message_in_force(served, moment, is_on):
    """Shell, netns-exec and dnsmasq are held one after the other. Nobody has confirmed the message: until the agent has
    applied it, the message before is in force, "off" included."""
    if not is_on:
        served.apply(kept(enable=False, dnshosts=None, dnsservers=None))
    hosts, mark = DNSMASQ / "vpn_7/hosts", len(served.log())
    with held_programs(served.agent):
        asking = subprocess.Popen([str(BUILD / "vqctl"), "apply", "-"], stdin=subprocess.PIPE, stderr=subprocess.PIPE,
                                  text=True)
        asking.stdin.write(json.dumps(kept(dnshosts=[{"domain": "nas.vpn7.example", "ip": "192.168.7.99"}])))
        asking.stdin.close()
        wait_until(lambda: "192.168.7.99" in hosts.read_text(encoding="utf-8"), "the message is being applied")
        time.sleep(moment)

        end_agent(served)
        assert asking.wait(timeout=10) == 3, "the message was confirmed"
        is_applied = "vpn 7: applied" in log_since(served, mark)
        served.start()
        time.sleep(3)  # a process that was held may still come

    check_all_of_it("192.168.7.99" if is_applied else "192.168.7.10" if is_on else None)
    wait_until(lambda: not served.status()["problems"], "the status tells no problem")

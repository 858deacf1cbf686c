"""vqctl query: the answer that a client gets, and its way."""

import json
import os
import pathlib
import signal
import subprocess
import time

import pytest
from box import BUILD, DNSMASQ, ROOT, end, expect, instance_pid, instances, message, vpn_config
from waiting import wait_until

FILES = DNSMASQ / "vpn_7"


def example():
    return json.loads((ROOT / "examples/branch-office.json").read_text())


@pytest.fixture
def served(unattended):
    unattended.apply(example())
    expect("192.168.7.10", "nas.branch.example")
    return unattended


def query(box, *words, code=0, vpn=7):
    done = box.vqctl("query", "--vpn", vpn, *words)
    assert (done.returncode, done.stderr) == (code, ""), done.stdout + done.stderr + box.log()
    return done.stdout.splitlines()


def way(lines):
    return [line.removeprefix("way: ") for line in lines if line.startswith("way: ")]


def differs(lines):
    return [line for line in lines if line.startswith("differs: ")]


def dnsmasqs():
    """The pids of all processes whose command line has a query log."""
    found = []
    for entry in pathlib.Path("/proc").iterdir():
        if entry.name.isdigit():
            try:
                words = (entry / "cmdline").read_bytes().split(b"\0")
            except OSError:
                continue
            found += [int(entry.name)] if b"--log-queries=extra" in words else []
    return found


def test_a_host_is_answered_from_its_line(served):
    lines = query(served, "NAS.branch.example")
    assert lines[0].lower() == "nas.branch.example a 192.168.7.10"
    assert way(lines) == [f"{FILES}/hosts, line 1: 192.168.7.10 nas.branch.example"]
    assert lines[-1].startswith("time: ") and not differs(lines)


def test_an_address_is_turned_round(served):
    lines = query(served, "192.168.7.10", "PTR")
    assert lines[0] == "10.7.168.192.in-addr.arpa PTR nas.branch.example"
    assert way(lines) == [f"{FILES}/hosts, line 1: 192.168.7.10 nas.branch.example"]


def test_a_mail_exchanger_is_answered_from_its_line(served):
    lines = query(served, "branch.example", "mx")
    assert lines[0] == "branch.example MX 10 mail.branch.example"
    assert way(lines) == [f"{FILES}/dnsmasq.d/Mxhost.conf, line 1: mx-host=branch.example,mail.branch.example,10"]


def test_a_forward_is_named_with_its_line(served):
    lines = query(served, "crm.corp.example")
    assert lines[0] == "crm.corp.example A 198.51.100.77"
    forwarded, answered = way(lines)
    assert forwarded == (f"forwarded to 10.7.0.54 ({FILES}/dnsmasq.d/DnsProxy.conf, line 1: "
                         "server=/corp.example/10.7.0.54)")
    assert answered.startswith("answered after ") and answered.endswith(" ms: crm.corp.example is 198.51.100.77")


def test_upstream_servers_are_named_with_their_lines(served):
    lines = query(served, "www.example.net")
    assert lines[0] == "www.example.net A 198.51.100.10"
    assert f"forwarded to 10.7.0.53 ({FILES}/resolv.conf, line 1: nameserver 10.7.0.53)" in way(lines)
    assert (f"forwarded to 203.0.113.53 ({FILES}/dnsmasq.d/ServerMap.conf, line 1: server=203.0.113.53@wan0)"
            in way(lines))
    assert not differs(lines)


def test_a_name_without_an_answer_says_why(running):
    running.apply(message())
    expect("192.168.7.10", "nas.vpn7.example")
    lines = query(running, "nobody.corp.example", code=1)
    assert lines[0] == "nobody.corp.example A: no such name (NXDOMAIN)"
    assert way(lines)[0] == f"forwarded to 10.7.0.53 ({FILES}/resolv.conf, line 1: nameserver 10.7.0.53)"
    assert query(running, "www.example.net", "MX", code=1)[0] in (
        "www.example.net MX: no such record (NOERROR)", "www.example.net MX: a server refused (REFUSED)")
    assert query(running, "elsewhere.example", code=1)[0] == "elsewhere.example A: a server refused (REFUSED)"


def test_a_silent_upstream_is_a_timeout(running):
    running.apply(message(dnsservers=[{"dnsserver": "10.7.0.99"}]))
    expect("192.168.7.10", "nas.vpn7.example")
    begin = time.monotonic()
    lines = query(running, "www.example.net", code=1)
    assert time.monotonic() - begin > 4.5
    assert lines == ["www.example.net A: no answer within 5 s",
                     f"way: forwarded to 10.7.0.99 ({FILES}/resolv.conf, line 1: nameserver 10.7.0.99)",
                     "time: 5000 ms"]


def test_a_running_instance_with_other_content_differs(served):
    (FILES / "hosts").write_text("192.168.7.99 nas.branch.example\n")
    lines = query(served, "nas.branch.example")
    assert lines[0] == "nas.branch.example A 192.168.7.99"
    assert differs(lines) == ["differs: the running instance answers: nas.branch.example A 192.168.7.10; its cache holds "
                              "an older answer, or it has not read the files again"]


def test_an_ended_instance_differs(served):
    end(instance_pid())
    lines = query(served, "nas.branch.example")
    assert lines[0] == "nas.branch.example A 192.168.7.10"
    assert differs(lines) == ["differs: no instance answers on port 53"]


def test_files_that_dnsmasq_does_not_take_are_named(served):
    own = FILES / "dnsmasq.d/own.conf"
    own.write_text("no-such-option\n")
    lines = query(served, "nas.branch.example", code=1)
    own.unlink()
    assert lines[0].replace("//", "/") == (
        f"nas.branch.example A: dnsmasq does not start with these files: bad option at line 1 of {own}")
    assert differs(lines) == ["differs: the running instance answers: nas.branch.example A 192.168.7.10; its cache holds "
                              "an older answer, or it has not read the files again"]


def test_a_long_answer_comes_over_tcp(served):
    own = FILES / "hosts"
    own.write_text("".join(f"192.168.7.{host} many.branch.example\n" for host in range(1, 101)))
    lines = query(served, "many.branch.example")
    assert sorted(lines[:100]) == sorted(f"many.branch.example A 192.168.7.{host}" for host in range(1, 101))


def test_a_stopped_instance_differs(served):
    pid = instance_pid()
    os.kill(pid, signal.SIGSTOP)
    lines = query(served, "nas.branch.example")
    os.kill(pid, signal.SIGCONT)
    assert lines[0] == "nas.branch.example A 192.168.7.10"
    assert differs(lines) == ["differs: the running instance does not answer"]


def test_bad_questions_are_refused(served):
    def refusal(*words, code=1):
        done = served.vqctl("query", *words)
        assert (done.returncode, done.stdout) == (code, "")
        return done.stderr
    assert refusal("--vpn", "9", "a.example", code=2) == "vqctl: vpn 9: refused (-2 No such file or directory): vpn 9 is not configured\n"
    assert refusal("--vpn", "7", "a..example") == (
        'vqctl: vpn 7: refused (-22 Invalid argument): "a..example" is not a domain name\n')
    assert refusal("--vpn", "7", "a.example", "WHAT", code=2) == (
        'vqctl: "WHAT" is not a type of records, such as A, AAAA, MX or TYPE65\n')


def test_a_missing_namespace_is_named(box):
    box.configure(vpn_config(7), vpn_config(8), vpn_config(9))
    box.start()
    done = box.vqctl("query", "--vpn", "9", "a.example")
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr == ("vqctl: vpn 9: refused (-2 No such file or directory): namespace /run/netns/vpn_9 does not "
                           "exist\n")


def test_a_query_leaves_the_instance_alone_and_nothing_behind(served):
    before, files = instance_pid(), sorted(pathlib.Path("/run").glob("*.pid"))
    document = json.loads(served.vqctl("--json", "query", "--vpn", 7, "nas.branch.example", check=True).stdout)
    assert document.pop("milliseconds") < 5000
    assert document == {"schema": 1, "vpn": 7, "name": "nas.branch.example", "type": "A", "rcode": "NOERROR",
                        "answers": ["nas.branch.example A 192.168.7.10"],
                        "way": [f"{FILES}/hosts, line 1: 192.168.7.10 nas.branch.example"]}
    wait_until(lambda: dnsmasqs() == [], "the dnsmasq of the query has ended")
    assert instances(7) == [before] == [instance_pid()]
    assert sorted(pathlib.Path("/run").glob("*.pid")) == files
    assert served.status()["problems"] == []


def begin_slow_query(box):
    """A query that waits for its upstream server. Returns once its dnsmasq runs."""
    vqctl = subprocess.Popen([BUILD / "vqctl", "query", "--vpn", "7", "www.example.net"], text=True,
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    wait_until(lambda: len(dnsmasqs()) == 2, "timeout and dnsmasq run")
    return vqctl


def test_the_dnsmasq_of_a_query_is_not_taken_for_an_instance(running):
    running.apply(message(dnsservers=[{"dnsserver": "10.7.0.99"}]))
    expect("192.168.7.10", "nas.vpn7.example")
    before = instance_pid()
    vqctl = begin_slow_query(running)
    assert instances(7) == [before]
    assert running.status()["problems"] == []
    running.apply(message(dnsservers=[{"dnsserver": "10.7.0.99"}], operation="reboot"))
    assert len(dnsmasqs()) == 2
    assert running.vqctl("stop", "--vpn", 7).returncode == 0
    assert instances(7) == [] and len(dnsmasqs()) == 2
    assert vqctl.wait(10) == 1


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGKILL])
def test_the_dnsmasq_of_a_query_ends_with_the_agent(running, number):
    running.apply(message(dnsservers=[{"dnsserver": "10.7.0.99"}]))
    expect("192.168.7.10", "nas.vpn7.example")
    vqctl = begin_slow_query(running)
    running.agent.send_signal(number)
    running.agent.wait(10)
    running.agent = None
    assert vqctl.wait(10) in (1, 3)
    if number == signal.SIGTERM:
        assert "the agent is stopping" in vqctl.stderr.read()
    wait_until(lambda: dnsmasqs() == [], "the dnsmasq of the query has ended", 20)
    assert len(instances(7)) == 1

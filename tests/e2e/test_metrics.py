"""`vqctl metrics`: what it prints is a valid exposition, and its counters say exactly what happened."""

import contextlib
import json
import os
import pathlib
import re
import signal
import socket
import stat
import threading
import time

import pytest

import box as box_module
from box import ask, end, instance_pid, message, rows, run, vpn_config, wait_until
from faults import FAST, Client, enter, is_served_by_one

SAMPLE = re.compile(r'^(kavel_\w+)(?:\{(.*)\})? (\S+)$')
LABEL = re.compile(r'(\w+)="((?:[^"\\]|\\.)*)"')
TABLE = "kavel_dns_0_9"


def read_samples(text):
    """The samples by name and labels, `name{label="value"}`; the labels are in the order of the text."""
    found = {}
    for line in text.splitlines():
        if not line.startswith("#"):
            name, labels, value = SAMPLE.match(line).groups()
            key = name + (f"{{{labels}}}" if labels else "")
            assert key not in found, f"twice: {key}"
            found[key] = float(value)
    return found


def metrics(machine):
    return read_samples(machine.vqctl("metrics", check=True).stdout)


def of_vpn(machine, name, vpn=7):
    """The value of a metric of a VPN. An instance that does not answer in time tells none: then it is asked again."""
    sample = f'kavel_vpn_{name}{{vpn="{vpn}"}}'
    return wait_until(lambda: [value for key, value in metrics(machine).items() if key == sample], f"{sample} is told")[0]


def check_with_promtool(text):
    checked = run("promtool", "check", "metrics", input=text, check=False)
    assert checked.returncode == 0, checked.stdout + checked.stderr
    assert checked.stdout + checked.stderr == "", "no advice either"


def ask_many(count, name, options=()):
    for number in range(count):
        ask(name.format(number), options=options)


@pytest.fixture
def probed(box):
    """An agent that asks its instances every second, over UDP and over TCP."""
    box.configure(vpn_config(7), vpn_config(8), watch=FAST)
    box.start()
    box.apply(message())
    return box


def test_promtool_accepts_the_metrics(running):
    running.vqctl("apply", "--revision", 'a "quoted" \\ revision', "-", input=json.dumps(message()))
    running.refused(message(enable=True, vpnid=7, dnshosts=[{"domain": "x" * 300, "ip": "192.168.7.10"}]))
    ask("www.example.net")
    ask("nas.vpn7.example")

    text = running.vqctl("metrics", check=True).stdout

    check_with_promtool(text)
    samples = read_samples(text)
    assert samples["kavel_agent_up"] == 1
    version = running.vqctl("--version").stdout.split()[1]
    assert samples[f'kavel_build_info{{version="{version}"}}'] == 1
    assert samples["kavel_instances_meant"] == samples["kavel_instances_running"] == 1
    assert samples["kavel_instances_answering"] == 1
    assert (samples['kavel_vpn_up{vpn="7"}'], samples['kavel_vpn_up{vpn="8"}']) == (1, 0)
    assert samples['kavel_vpn_upstream_queries_total{vpn="7",server="10.7.0.53#53"}'] == 1
    assert samples['kavel_vpn_revision_info{vpn="7",revision="a \\"quoted\\" \\\\ revision"}'] == 1
    assert time.time() - samples["kavel_agent_start_time_seconds"] < 60
    assert samples["kavel_agent_memory_bytes"] > 1_000_000
    assert json.loads(running.vqctl("metrics", "--json", check=True).stdout)["schema"] == 1
    assert "kavel_agent_up 1\n" in json.loads(running.vqctl("metrics", "--json").stdout)["metrics"]


def test_the_queries_of_clients_are_counted_and_no_others(probed):
    """The agent's own questions of several seconds, of a status and of the metrics are no queries of clients."""
    time.sleep(2.5)
    for _ in range(3):
        probed.status()
        assert of_vpn(probed, "cache_hits_total") == 0

    ask_many(10, "nas.vpn7.example")
    ask_many(5, "name{}.vpn7.example.net")
    time.sleep(1.5)

    assert of_vpn(probed, "cache_hits_total") == 10
    assert of_vpn(probed, "cache_misses_total") == 5
    assert metrics(probed)['kavel_vpn_upstream_queries_total{vpn="7",server="10.7.0.53#53"}'] == 5
    assert of_vpn(probed, "cache_size") > 0
    assert of_vpn(probed, "redirected_packets_total") == 15


def test_the_queries_are_right_after_the_agent_was_killed(probed):
    ask_many(4, "nas.vpn7.example")
    time.sleep(2)
    probed.agent.kill()
    probed.agent.wait()

    probed.start()

    time.sleep(2)
    assert of_vpn(probed, "cache_hits_total") == 4


def test_the_queries_are_right_while_the_instance_is_suspended(unattended):
    """Questions that got no answer in time are answered later: the instance counts them all the same."""
    unattended.apply(message())
    ask_many(3, "nas.vpn7.example")
    os.kill(instance_pid(), signal.SIGSTOP)
    for _ in range(2):
        assert not unattended.status()["answers"]
    os.kill(instance_pid(), signal.SIGCONT)
    wait_until(lambda: unattended.status()["answers"], "the instance answers")

    assert of_vpn(unattended, "cache_hits_total") == 3


def test_a_new_instance_counts_from_its_beginning(probed):
    ask_many(4, "nas.vpn7.example")
    before = instance_pid()
    end(before)
    wait_until(lambda: is_served_by_one(7) and instance_pid() != before, "the instance runs again")
    ask_many(2, "nas.vpn7.example")
    time.sleep(1.5)

    assert of_vpn(probed, "cache_hits_total") == 2
    assert of_vpn(probed, "restarts_total") == 1
    assert of_vpn(probed, "restarts_total", vpn=8) == 0


def test_messages_are_counted_by_what_became_of_them(running):
    running.apply(message(), message())
    running.refused(message(dnshosts=[{"domain": "x" * 300, "ip": "192.168.7.10"}]))
    running.refused(message(9))
    bad = box_module.DNSMASQ / "vpn_8/dnsmasq.d/own.conf"
    bad.write_text("no-such-option\n")
    running.vqctl("apply", "-", input=json.dumps(message(8)))

    samples = metrics(running)

    by_result = {result: samples[f'kavel_messages_total{{result="{result}"}}']
                 for result in ("applied", "refused", "not_running", "still_running")}
    assert by_result == {"applied": 2, "refused": 2, "not_running": 1, "still_running": 0}
    assert samples["kavel_message_duration_seconds_count"] == 5
    assert samples['kavel_message_duration_seconds_bucket{le="+Inf"}'] == 5
    assert samples['kavel_message_duration_seconds_bucket{le="60"}'] == 5
    assert 0 < samples["kavel_message_duration_seconds_sum"] < 20
    assert samples['kavel_vpn_launch_failures_total{vpn="8"}'] >= 1
    assert samples['kavel_vpn_launch_failures_total{vpn="7"}'] == 0


def test_a_refused_revision_is_wanted_and_not_in_force(running):
    refused = message(dnshosts=[{"domain": "x" * 300, "ip": "192.168.7.10"}])
    running.vqctl("apply", "--revision", "one", "-", input=json.dumps(message()))
    assert metrics(running)['kavel_vpn_revision_wanted_info{vpn="7",revision="one"}'] == 1

    running.vqctl("apply", "--revision", "two", "-", input=json.dumps(refused))

    samples = metrics(running)
    assert samples['kavel_vpn_revision_wanted_info{vpn="7",revision="two"}'] == 1
    assert samples['kavel_vpn_revision_info{vpn="7",revision="one"}'] == 1
    assert 'kavel_vpn_revision_wanted_info{vpn="7",revision="one"}' not in samples


def test_repairs_are_counted(running):
    running.apply(message())
    assert of_vpn(running, "repairs_total") == 0
    run("ip", "netns", "exec", "vpn_7", "nft", "delete", "table", "inet", TABLE)
    wait_until(lambda: of_vpn(running, "repairs_total") == 1, "the repair is counted")


def test_a_rule_without_counters_is_replaced_and_loses_no_query(running):
    """As an agent installed it that did not count."""
    running.apply(message())
    listed = run("ip", "netns", "exec", "vpn_7", "nft", "list", "table", "inet", TABLE).stdout
    older = re.sub(r"counter packets \d+ bytes \d+ ", "", listed)
    assert older != listed
    with Client(7) as client:
        run("ip", "netns", "exec", "vpn_7", "nft", "-f", "-", input=f"delete table inet {TABLE}\n{older}")
        wait_until(lambda: of_vpn(running, "repairs_total") == 1, "the rule is replaced")
        wait_until(lambda: of_vpn(running, "redirected_packets_total") > 5, "the new rule counts")
    assert client.lost == 0


@pytest.fixture
def failing_server():
    """The address of an upstream server that answers every query with SERVFAIL."""
    address = "10.7.0.55"
    run("ip", "-n", "upstream_7", "address", "add", f"{address}/24", "dev", "eth0")
    ended = threading.Event()
    ready = threading.Event()

    def answer():
        enter("upstream_7")
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as server:
            server.bind((address, 53))
            server.settimeout(0.1)
            ready.set()
            while not ended.is_set():
                with contextlib.suppress(TimeoutError):
                    query, peer = server.recvfrom(512)
                    server.sendto(query[:2] + b"\x81\x82" + query[4:], peer)

    thread = threading.Thread(target=answer)
    thread.start()
    assert ready.wait(5)
    yield address
    ended.set()
    thread.join()
    run("ip", "-n", "upstream_7", "address", "del", f"{address}/24", "dev", "eth0")


def test_an_upstream_that_fails_is_counted_and_named(probed, failing_server):
    """Another server is asked then: 10.7.0.54, which refuses. dnsmasq does not count what a refusing server gets as
    failed. Nobody has 10.7.0.99."""
    probed.apply(message(dnsservers=[{"dnsserver": failing_server}, {"dnsserver": "10.7.0.54"}]))
    failures = f'kavel_vpn_upstream_failures_total{{vpn="7",server="{failing_server}#53"}}'
    assert metrics(probed)[failures] == 0
    ask_many(5, "name{}.elsewhere.example", options=["+noedns"])
    samples = metrics(probed)
    assert samples[failures] > 0
    assert samples['kavel_vpn_upstream_failures_total{vpn="7",server="10.7.0.54#53"}'] == 0
    assert 'kavel_vpn_problems{vpn="7",code="upstream-silent"}' not in samples

    probed.apply(message(dnsservers=[{"dnsserver": "10.7.0.99"}]))
    wait_until(lambda: metrics(probed).get('kavel_vpn_problems{vpn="7",code="upstream-silent"}') == 1,
               "the silent upstream server is a problem", 30)


def test_each_server_is_told_even_if_they_do_not_fit_into_a_packet(running):
    forwards = [{"domains": [f"d{number}.example"], "serverips": [f"10.7.{number}.1"]} for number in range(1, 41)]
    running.apply(message(dnsproxies=forwards))

    servers = [key for key in metrics(running) if key.startswith('kavel_vpn_upstream_queries_total{vpn="7"')]

    assert len(servers) == 41


def test_store_errors_are_counted(box):
    box.configure(vpn_config(7), vpn_config(8), persistence=True, store=str(box_module.STORE))
    box.start()
    box.apply(message(persistentflag=True))
    assert list(rows()) == [7]
    assert metrics(box)["kavel_store_errors_total"] == 0
    box_module.STORE.unlink()
    box_module.STORE.mkdir()
    try:
        box.vqctl("store", "list")
        assert metrics(box)["kavel_store_errors_total"] > 0
    finally:
        box_module.STORE.rmdir()


def test_output_replaces_the_file_in_one_step(running, tmp_path):
    target = tmp_path / "vqagent.prom"
    target.write_text("old\n")
    reader = target.open(encoding="ascii")

    done = running.vqctl("metrics", "--output", target, preexec_fn=lambda: os.umask(0o077))

    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
    assert reader.read() == "old\n", "a reader of the old file still has it whole"
    check_with_promtool(target.read_text())
    assert stat.S_IMODE(target.stat().st_mode) == 0o644
    assert [path.name for path in tmp_path.iterdir()] == ["vqagent.prom"]
    missing = running.vqctl("metrics", "--output", tmp_path / "missing/x.prom")
    assert missing.returncode == 2
    assert "missing/x.prom: cannot be created: No such file or directory" in missing.stderr


def test_without_an_agent_the_file_says_so(box, tmp_path):
    target = tmp_path / "vqagent.prom"

    done = box.vqctl("metrics", "--output", target)

    assert done.returncode == 3
    assert "agent.sock" in done.stderr
    check_with_promtool(target.read_text())
    assert read_samples(target.read_text()) == {"kavel_agent_up": 0}
    printed = box.vqctl("metrics")
    assert (printed.returncode, printed.stdout) == (3, "")
    assert not pathlib.Path("/run/kavel/agent.sock").exists()

"""What an operator does without a message: an empty cache, and more lines in the log."""

import json
import os
import signal
import subprocess

import pytest

from box import ask, expect, instance_pid, message, run, wait_until


@pytest.fixture
def cached_upstream():
    """An upstream server whose answers may be cached, unlike those of the lab."""
    run("ip", "-n", "upstream_7", "address", "add", "10.7.0.55/24", "dev", "eth0")
    server = subprocess.Popen(
        ["ip", "netns", "exec", "upstream_7", "dnsmasq", "--keep-in-foreground", "--conf-file=/dev/null", "--no-resolv",
         "--no-hosts", "--bind-interfaces", "--pid-file", "--listen-address=10.7.0.55", "--local-ttl=600",
         "--address=/www.example.net/198.51.100.10"])
    yield "10.7.0.55"
    server.kill()
    server.wait()
    run("ip", "-n", "upstream_7", "address", "del", "10.7.0.55/24", "dev", "eth0")


@pytest.fixture
def serving(running, cached_upstream):
    running.apply(message(dnsservers=[{"dnsserver": cached_upstream}]))
    expect("192.168.7.10", "nas.vpn7.example")
    expect("198.51.100.10", "www.example.net")
    return running


def misses():
    shown = run("ip", "netns", "exec", "client_7", "dig", "+short", "@192.168.7.1", "misses.bind", "CH", "TXT").stdout
    return int(shown.strip().strip('"'))


def test_a_flush_empties_the_cache(serving):
    pid = instance_pid()
    before = misses()
    assert ask("www.example.net") == ["198.51.100.10"]
    assert misses() == before, "the answer is cached"

    done = serving.vqctl("flush", "--vpn", "7")

    assert (done.returncode, done.stdout, done.stderr) == (0, "vpn 7: flushed\n", "")
    wait_until(lambda: (ask("www.example.net"), misses())[1] > before, "the upstream server is asked again")
    assert instance_pid() == pid
    expect("192.168.7.10", "nas.vpn7.example")
    assert "vpn 7: cache flushed, by pid " in serving.log()


def test_a_flush_without_an_instance_is_refused(running):
    done = running.vqctl("flush", "--vpn", "7")
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr == "vqctl: vpn 7: refused (-3 No such process): no instance runs\n"


def test_a_flush_names_a_vpn(running):
    assert running.vqctl("flush").returncode == 2
    assert running.vqctl("flush", "--vpn", "99").returncode == 2


def level(box):
    return json.loads(box.vqctl("log", "level", "--json").stdout)


def test_the_log_level_is_changed_for_a_time(box):
    box.configure(log="notice")
    box.start()
    assert level(box) == {"schema": 1, "level": "notice", "configured": "notice"}

    done = box.vqctl("log", "level", "debug", "--for", "1h")

    assert done.returncode == 0 and done.stdout.startswith("log level: debug until 2"), done.stdout
    assert "NOTICE log level debug for 3600 s, by pid " in box.log() and "(vqctl)" in box.log()
    assert level(box)["level"] == "debug"
    assert box.vqctl("log", "level", "debug", "--for", "1s").returncode == 0
    wait_until(lambda: "log level notice again" in box.log(), "the level ends")
    assert level(box) == {"schema": 1, "level": "notice", "configured": "notice"}


def test_a_reload_ends_only_a_level_without_a_time(box):
    box.configure(log="notice")
    box.start()
    for words, after in ((("debug",), "notice"), (("debug", "--for", "1h"), "debug")):
        assert box.vqctl("log", "level", *words).returncode == 0
        seen = box.log().count("configuration read again")
        os.kill(box.agent.pid, signal.SIGHUP)
        wait_until(lambda: box.log().count("configuration read again") > seen, "the configuration is read")
        assert level(box)["level"] == after


@pytest.mark.parametrize("words", [("loud",), ("debug", "--for", "25h"), ("--for", "10m")])
def test_a_bad_level_or_time_is_not_sent(running, words):
    assert running.vqctl("log", "level", *words).returncode == 2

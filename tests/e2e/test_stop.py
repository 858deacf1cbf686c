"""Everything of a VPN is ended at the operator's request, with an agent and without one."""

import json
import subprocess

import pytest

from box import (BUILD, STATE, STORE, alive, expect, instance_pid, instances, message, pid_file, routes, rows, run, tables,
                 vpn_config)


@pytest.fixture
def serving(box):
    """Both VPNs are served and stored."""
    box.configure(vpn_config(7), vpn_config(8), persistence=True, store=str(STORE))
    box.start()
    box.apply(message(7, persistentflag=True), message(8, persistentflag=True))
    return box


def is_gone(vpn):
    policy = json.loads(run("ip", "-n", f"vpn_{vpn}", "-json", "rule", "show").stdout)
    assert instances(vpn) == [] and not pid_file(vpn).exists()
    assert routes(vpn) == [] and tables(vpn) == []
    assert not [rule for rule in policy if rule.get("table") == "199"]
    assert list(STATE.glob(f"vpn_{vpn}.*")) == []
    return True


def test_one_vpn_is_stopped_and_the_other_goes_on(serving):
    other = instance_pid(8)

    done = serving.vqctl("stop", "--vpn", "7")

    assert (done.returncode, done.stdout, done.stderr) == (0, "vpn 7: stopped\n", "")
    assert is_gone(7)
    assert instance_pid(8) == other and alive(other)
    assert sorted(rows()) == [7, 8]


def test_nothing_is_repaired_until_the_next_message(serving):
    serving.vqctl("stop", "--vpn", "7")

    assert serving.vqctl("repair").returncode == 0
    assert is_gone(7)
    serving.apply(message(7))
    expect("192.168.7.10", "nas.vpn7.example")


def test_a_stopped_vpn_is_neither_off_nor_failed(serving):
    serving.vqctl("stop", "--vpn", "7")

    shown = serving.vqctl("status")
    assert shown.returncode == 0 and shown.stdout.endswith("\n2 VPNs: 1 running, 1 stopped\n"), shown.stdout
    status = serving.status()
    assert (status["state"], status["stopped"], status["stored_enable"]) == ("stopped", True, True)
    assert status["problems"] == []
    serving.apply(message(7, enable=False))
    status = serving.status()
    assert (status["state"], status["stopped"]) == ("off", False)


def test_the_next_start_brings_back_what_is_stored(serving):
    done = serving.vqctl("stop", "--all")

    assert (done.returncode, done.stdout) == (0, "vpn 7: stopped\nvpn 8: stopped\n")
    assert is_gone(7) and is_gone(8)
    assert serving.stop() == 0
    serving.start()
    for vpn in (7, 8):
        expect(f"192.168.{vpn}.10", f"nas.vpn{vpn}.example", vpn=vpn)


def test_everything_is_stopped_without_an_agent(serving):
    assert serving.stop() == 0

    done = subprocess.run([BUILD / "vqagent", "--stop-all"], text=True, capture_output=True)

    assert done.returncode == 0, done.stderr
    assert is_gone(7) and is_gone(8)
    assert STORE.exists() and sorted(rows()) == [7, 8]


def test_an_instance_of_a_vpn_that_is_not_configured_any_more_is_ended(serving):
    assert serving.stop() == 0
    serving.configure(vpn_config(7), persistence=True, store=str(STORE))

    done = subprocess.run([BUILD / "vqagent", "--stop-all"], text=True, capture_output=True)

    assert done.returncode == 0, done.stderr
    assert is_gone(7) and instances(8) == []


def test_stopping_all_is_refused_while_an_agent_runs(serving):
    done = subprocess.run([BUILD / "vqagent", "--stop-all"], text=True, capture_output=True)

    assert done.returncode == 1
    assert f"already running as pid {serving.agent.pid}" in done.stderr
    assert instances(7) and instances(8)


def test_stopping_what_does_not_run_does_nothing(running):
    done = running.vqctl("stop", "--all")
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
    done = running.vqctl("stop", "--vpn", "7")
    assert (done.returncode, done.stdout) == (0, "vpn 7: stopped\n")


@pytest.mark.parametrize("words", [(), ("--all", "--vpn", "7")])
def test_it_is_said_what_to_stop(running, words):
    assert running.vqctl("stop", *words).returncode == 2


def test_a_vpn_that_is_not_configured_is_refused(running):
    done = running.vqctl("stop", "--vpn", "99")
    assert done.returncode == 2
    assert done.stdout == "vpn 99: refused (-2 No such file or directory): vpn 99 is not configured\n"

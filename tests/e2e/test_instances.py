"""Instances that are left over, killed or replaced by other processes, and restarts of the agent."""

import json
import os
import signal
import subprocess

from box import (BUILD, DNSMASQ, alive, ask, end, expect, instance_pid, instances, message, pid_file, vpn_config,
                 wait_until)


def started(box, vpn=7):
    box.apply(message(vpn))
    expect(f"192.168.{vpn}.10", f"nas.vpn{vpn}.example", vpn=vpn)
    return instance_pid(vpn)


def test_restart_ends_an_old_instance_that_holds_the_port(unattended):
    """An instance that no pid file names is found by its tag and ended; the new instance can bind the port."""
    old = started(unattended)
    gone = subprocess.Popen(["true"])
    gone.wait()
    pid_file().write_text(f"{gone.pid}\n")

    unattended.apply(message(dnshosts=[{"domain": "new.vpn7.example", "ip": "192.168.7.99"}]))

    expect("192.168.7.99", "new.vpn7.example")
    assert not alive(old)
    assert instances(7) == [instance_pid()]


def test_apply_starts_a_killed_instance_again(unattended):
    end(started(unattended))
    assert ask("nas.vpn7.example") == []

    started(unattended)

    assert len(instances(7)) == 1


def test_reload_of_a_killed_instance_is_refused(unattended):
    pid = started(unattended)
    end(pid)

    said = unattended.refused(message(operation="reload"))

    assert said == f"vpn 7: refused (-3 No such process): Reload dns service pid {pid} failed(3:No such process)"


def test_reload_without_an_instance_is_reported(running):
    """The module skips a reload if there is no instance: the message is applied, and nothing answers."""
    done = running.vqctl("apply", "-", input=json.dumps(message(operation="reload")))

    assert done.returncode == 4
    assert done.stdout == "standard input: vpn 7: applied, NOT RUNNING: no instance runs, and a reload starts none\n"
    assert running.status()["problems"][0] == "no instance runs: it did not start, or was ended from outside"
    started(running)
    assert running.status()["problems"] == []


def test_pid_file_that_names_another_process(unattended):
    """Reload, restart and stop never signal a process that is not the VPN's instance."""
    own = started(unattended)
    bystander = subprocess.Popen(["sleep", "60"])
    try:
        pid_file().write_text(f"{bystander.pid}\n")
        said = unattended.refused(message(operation="reload"))
        assert said.startswith("vpn 7: refused (-3 No such process): ")
        assert str(bystander.pid) in said and "sleep" in said

        unattended.apply(message())
        assert bystander.poll() is None
        assert not alive(own)
        expect("192.168.7.10", "nas.vpn7.example")

        end(instance_pid())
        pid_file().write_text(f"{bystander.pid}\n")
        unattended.apply(message(enable=False))
        assert bystander.poll() is None
        assert not pid_file().exists()
    finally:
        bystander.kill()
        bystander.wait()


def test_pid_file_that_would_signal_every_process(unattended):
    """0 and -1 mean the whole process group and every process: the agent must not let the module signal them."""
    pid = started(unattended)
    for text in ("0\n", "-1\n", "not a number\n"):
        pid_file().write_text(text)
        said = unattended.refused(message(operation="reload"))
        assert said.startswith("vpn 7: refused (-3 No such process): "), said
        assert unattended.agent.poll() is None
    assert alive(pid)


def test_instance_keeps_answering_while_the_agent_restarts(running):
    pid = started(running)

    assert running.stop() == 0

    assert instance_pid() == pid
    assert ask("nas.vpn7.example") == ["192.168.7.10"]
    running.start()
    assert instance_pid() == pid
    assert running.status()["pid"] == pid
    running.apply(message(operation="reload", dnshosts=[{"domain": "nas.vpn7.example", "ip": "192.168.7.12"}]))
    expect("192.168.7.12", "nas.vpn7.example")
    assert instance_pid() == pid


def test_sigterm_waits_for_the_message_in_progress(running):
    """A restart waits 250 ms for an instance that ignores SIGTERM: long enough to send a signal meanwhile."""
    old = started(running)
    os.kill(old, signal.SIGSTOP)
    asking = subprocess.Popen([str(BUILD / "vqctl"), "apply", "-"], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                              text=True)
    asking.stdin.write(json.dumps(message(dnshosts=[{"domain": "nas.vpn7.example", "ip": "192.168.7.13"}])))
    asking.stdin.close()
    wait_until(lambda: "Pid is" in running.log(), "the message is in progress")

    assert running.stop() == 0

    assert asking.wait() == 0
    assert asking.stdout.read() == "standard input: vpn 7: applied\n"
    assert not alive(old)
    expect("192.168.7.13", "nas.vpn7.example")


def test_next_agent_controls_the_instance_of_a_killed_one(running):
    pid = started(running)
    running.agent.kill()
    running.agent.wait()

    running.start()

    running.apply(message(enable=False))
    assert not alive(pid)
    assert instances() == []


def test_status_reports_problems(unattended):
    pid = started(unattended)
    good = unattended.status()
    assert (good["meant"], good["alive"], good["is_dnsmasq"], good["in_namespace"], good["answers"]) == (True,) * 5
    assert good["problems"] == []
    assert (good["hosts"], good["servers"], good["routes"]) == (1, 1, 1)
    assert good["memory_bytes"] > 100_000

    end(pid)
    bad = unattended.status()
    assert (bad["meant"], bad["alive"], bad["answers"]) == (True, False, False)
    assert bad["codes"][0] == "instance-missing"
    assert bad["problems"][0] in (f"process {pid} is gone", "no instance runs: killed by signal 9")
    shown = unattended.vqctl("status")
    assert shown.returncode == 1
    assert "vpn 7: instance-missing: no instance runs: killed by signal 9\n    do: " in shown.stdout


def test_instance_that_does_not_start_is_reported(unattended):
    """dnsmasq refuses a file: the message is applied, and nothing answers."""
    broken = DNSMASQ / "vpn_7/dnsmasq.d/broken.conf"
    broken.write_text("no-such-option\n")

    done = unattended.vqctl("apply", "-", input=json.dumps(message()))

    assert done.returncode == 4
    assert done.stdout == ("standard input: vpn 7: applied, NOT RUNNING: the instance did not come up: "
                           "dnsmasq: bad option at line 1 of /etc/kavel/dnsmasq/vpn_7/dnsmasq.d//broken.conf\n")
    assert unattended.status()["problems"] == [
        "no instance runs: did not start: "
        "dnsmasq: bad option at line 1 of /etc/kavel/dnsmasq/vpn_7/dnsmasq.d//broken.conf"]
    assert unattended.status()["codes"] == ["start-failed"]
    broken.unlink()
    started(unattended)
    assert unattended.status()["problems"] == []


def test_desired_state_survives_a_restart_of_the_agent(unattended):
    end(started(unattended))
    pid_file().unlink()
    unattended.stop()
    unattended.start()

    assert unattended.status()["meant"]
    unattended.apply(message(enable=False))
    assert not unattended.status()["meant"]
    assert unattended.status()["problems"] == []


def test_status_of_a_hanging_process(running):
    """A hanging process is alive and does not answer."""
    pid = started(running)
    os.kill(pid, signal.SIGSTOP)
    try:
        row = running.status()
        assert row["alive"] and not row["answers"]
        assert any("port 53" in problem for problem in row["problems"])
    finally:
        os.kill(pid, signal.SIGCONT)
    wait_until(lambda: running.status()["answers"], "an answer after SIGCONT")


def test_init_and_release_of_a_vpn_directory(running):
    refused = running.vqctl("vpn", "release", "7")
    assert refused.returncode == 0, refused.stdout + refused.stderr
    assert not os.path.exists("/etc/kavel/dnsmasq/vpn_7")

    assert running.vqctl("vpn", "init", "7").returncode == 0
    started(running)
    assert running.vqctl("vpn", "release", "7").returncode == 1, "released while the instance runs"
    assert ask("nas.vpn7.example") == ["192.168.7.10"]


def test_status_lists_every_vpn(running):
    started(running)
    rows = json.loads(running.vqctl("status", "--json").stdout)["vpns"]
    assert [row["vpn"] for row in rows] == [7, 8]


def test_instance_of_a_vpn_that_was_removed_from_the_configuration(running):
    running.apply(message(7), message(8))
    running.stop()
    running.configure(vpn_config(7))

    running.start()

    assert "vpn 8: an instance runs, but the VPN is not configured" in running.log()
    shown = running.vqctl("status")
    assert shown.returncode == 1
    assert "vpn 8: instance-unwanted: an instance runs, but the VPN is not configured" in shown.stdout
    rows = {row["vpn"]: row for row in json.loads(running.vqctl("status", "--json").stdout)["vpns"]}
    assert set(rows) == {7, 8}
    assert rows[7]["problems"] == []
    assert rows[8]["pid"] == instance_pid(8)
    assert ask("nas.vpn8.example", vpn=8) == ["192.168.8.10"]

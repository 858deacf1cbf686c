"""An agent that repairs nothing by itself tells each fault, and repairs it when it is asked to. What is switched off in
the middle of a fault stays off."""

import json
import shutil
import time

import pytest

from box import ask, end, expect, instance_pid, instances, pid_file, routes, tables, wait_until
from faults import (ANYWHERE, FAST, delete_table, differs, directory, edit_hosts, flush_chain, forget_row, ip,
                    is_served_by_one, kept, kill, log_since, remove_store, serve, snapshot, wait_until_right)


@pytest.fixture
def served(box):
    """The look that follows a start has passed, and the second after it in which events wait."""
    serve(box)
    time.sleep(2.2)
    return box


@pytest.fixture
def unrepaired(box):
    """The agent sees what differs, and repairs it when it is asked to."""
    return serve(box, watch={**FAST, "repair": False})


# Each fault, what the status says about it while nothing is repaired (None: nothing), and what the repair says.
ASKED = {
    "pid file removed": (lambda: pid_file().unlink(),
                         "no instance runs: it did not start, or was ended from outside", "its pid file was gone"),
    "pid file emptied": (lambda: pid_file().write_text(""), "pid file names no process", "its pid file was changed"),
    "table deleted": (delete_table, "the steering rule is missing", "the steering rule was gone"),
    "chain flushed": (flush_chain, "the steering rule is missing", "the steering rule was"),
    "routes flushed": (lambda: ip("route", "flush", "table", "199"), "there were 0 of its 1 routes",
                       "there were 0 of its 1 routes"),
    "policy rule deleted": (lambda: ip("rule", "delete", "table", "199"), None, "its policy rule"),
    "loopback down": (lambda: ip("link", "set", "lo", "down"), None, "loopback interface"),
    "hosts edited": (edit_hosts, "hosts was changed", "hosts was changed"),
    "hosts unreadable": (lambda: (directory() / "hosts").chmod(0o600), "hosts was changed", "hosts was changed"),
    "directory closed": (lambda: directory().chmod(0o700), "its directory was closed", "its directory was closed"),
    "directory removed": (lambda: shutil.rmtree(directory()), "its directory was gone", "its directory was gone"),
    "row deleted": (forget_row, None, "its stored row was gone"),
    "store removed": (remove_store, None, "its stored row was gone"),
    "instance killed": (lambda: kill(instance_pid()), "no instance runs: killed by signal 9", "its instance was started"),
}


@pytest.mark.parametrize("fault", ASKED)
def test_without_repair_a_fault_is_told_and_repaired_when_asked(unrepaired, told, fault):
    make, problem, repair = ASKED[fault]
    before, mark = snapshot(), len(unrepaired.log())
    make()
    told_as = "nothing"
    if problem:
        status = wait_until(lambda: any(problem in text for text in unrepaired.status()["problems"]) and
                            unrepaired.vqctl("status", "--vpn", 7), f"status tells: {problem}", 5)
        assert status.returncode == 1
        told_as = [line for line in status.stdout.splitlines() if problem in line][0]
    time.sleep(1.2)
    assert differs(before), "nothing is repaired that nobody asked for"
    assert "repaired" not in log_since(unrepaired, mark)

    asked = unrepaired.vqctl("repair", "--vpn", 7)

    assert asked.returncode == 0, asked.stdout + asked.stderr
    assert asked.stdout.startswith("vpn 7: repaired: ") and repair in asked.stdout
    wait_until_right(before)
    expect("192.168.7.10", "nas.vpn7.example", server=ANYWHERE)
    assert unrepaired.status()["problems"] == []
    assert unrepaired.vqctl("repair").stdout == "nothing to repair\n"
    told(fault, told_as, asked.stdout.strip())


def test_a_reload_that_came_without_a_pid_file_is_in_force_after_the_repair(unrepaired):
    pid_file().unlink()
    done = unrepaired.vqctl("apply", "-", input=json.dumps(
        kept(operation="reload", dnshosts=[{"domain": "nas.vpn7.example", "ip": "192.168.7.77"}])))
    assert done.returncode == 4, done.stdout + done.stderr
    assert ask("nas.vpn7.example") == ["192.168.7.10"]

    assert "its pid file was gone" in unrepaired.vqctl("repair", "--vpn", 7).stdout

    expect("192.168.7.77", "nas.vpn7.example")


# ---- off stays off ----


def check_all_is_off(box):
    assert instances(7) == [] and not pid_file().exists() and routes() == [] and tables() == []
    status = box.status()
    assert status["state"] == "off" and status["problems"] == []
    assert ask("nas.vpn7.example") == []


def switch_off(box):
    box.apply(kept(enable=False, dnshosts=None, dnsservers=None))
    check_all_is_off(box)
    time.sleep(1.5)
    check_all_is_off(box)


def test_switching_off_ends_an_instance_without_a_pid_file(unrepaired):
    pid_file().unlink()
    switch_off(unrepaired)


def test_switching_off_ends_an_instance_without_its_rule(unrepaired):
    delete_table()
    switch_off(unrepaired)


def test_switching_off_removes_the_pid_file_of_a_dead_instance_without_its_rule(unrepaired):
    delete_table()
    kill(instance_pid())
    switch_off(unrepaired)


def test_switching_off_at_once_after_a_fault(served):
    """The agent has not looked at the fault yet."""
    for fault in (lambda: pid_file().unlink(), delete_table, lambda: kill(instance_pid())):
        fault()
        switch_off(served)
        served.apply(kept())
        expect("192.168.7.10", "nas.vpn7.example")


def test_an_instance_that_is_switched_off_while_it_waits_for_its_start_stays_off(served):
    for _ in range(4):
        end(wait_until(lambda: is_served_by_one(7) and instance_pid(), "one instance"))
    planned = wait_until(lambda: served.status().get("next_start_time"), "the next start is planned")
    served.apply(kept(enable=False, dnshosts=None, dnsservers=None))
    time.sleep(max(0, planned + 2 - time.time()))
    check_all_is_off(served)

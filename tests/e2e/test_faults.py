"""Everything that a VPN's service is made of is broken, one thing after the other: the agent tells it and repairs it,
without a person. Where events tell the fault, the agent has its default intervals."""

import contextlib
import os
import pathlib
import shutil
import signal
import socket
import threading
import time

import pytest

from box import (DNSMASQ, ask, end, expect, instance_pid, instances, message, pid_file, routes, run, vpn_config,
                 wait_until)
from faults import (ANYWHERE, FAST, ROOT, Client, connect_namespace, delete_table, differs, directory, edit_hosts,
                    end_agent, enter, flush_chain, forget_row, ip, is_served_by_one, kept, kill, log_since, nft,
                    remove_store, remove_surroundings, serve, snapshot, wait_until_right)


@pytest.fixture
def served(box):
    """The look that follows a start has passed, and the second after it in which events wait: from now on, for half a
    minute, the agent looks only when an event tells it to."""
    serve(box)
    time.sleep(2.2)
    return box


@pytest.fixture
def fast(box):
    return serve(box, watch=FAST)


@pytest.fixture
def ninth(box):
    """VPN 9 beside VPN 7. Its surroundings are not shared with other tests."""
    run(ROOT / "scripts/lab", "up", 9)
    serve(box, vpn_config(7), vpn_config(9)).apply(kept(9))
    expect("192.168.9.10", "nas.vpn9.example", vpn=9)
    time.sleep(2.2)
    yield box
    remove_surroundings(9)


def seconds(value):
    return f"{value:.2f} s" if value >= 0.1 else "none"


@contextlib.contextmanager
def repaired(box, told, fault, what, vpn=7, within=15.0, ends=False, loses=True):
    """Whatever happens in the context is repaired: the VPN looks as before, its client is answered, log and status tell
    it. `what` is in the text about the repair, or with `ends` in the text about the end of the instance. Unless it
    `loses` queries, the client is answered all the time."""
    count, last = ("ends", "last_end") if ends else ("repairs", "last_repair")
    before, counted = snapshot(vpn), box.status(vpn).get(count, 0)
    mark = len(box.log())
    with Client(vpn, timeout=0.1 if loses else 2.0) as client:
        yield client
        took = wait_until_right(before, vpn, within)
        status = wait_until(lambda: (now := box.status(vpn)).get(count, 0) > counted and now, f"{count} are counted")
    line = "its instance does not run: " if ends else "repaired: "
    told_about = [text for text in log_since(box, mark).splitlines() if f"vpn {vpn}: {line}" in text]
    assert any(what in text for text in told_about)  # a slow machine repairs in several steps
    assert any(text.endswith(status[last]) for text in told_about)
    assert abs(status[f"{last}_time"] - time.time()) < within + 10
    wait_until(lambda: not box.status(vpn)["problems"], "the status tells no problem")
    assert box.status(vpn)["state"] == "running"
    assert not differs(before, vpn)
    assert loses or client.lost == 0
    told(fault, status[last], f"right after {took:.2f} s", f"DNS dead: {seconds(client.longest)}")


# ---- instances that do not run, or do not answer ----


def test_a_killed_instance_answers_again(served, told):
    with repaired(served, told, "instance killed", "killed by signal 9", ends=True) as client:
        kill(instance_pid())


def test_an_instance_that_is_killed_again_and_again_is_started_ever_later(served, told):
    """At once, after 1 s, 2 s, 4 s."""
    with repaired(served, told, "instance killed four times", "killed by signal 9", ends=True) as client:
        for delay in (0, 1, 2, 4):
            mark = len(served.log())
            began = time.monotonic()
            wait_until(lambda: client.last > began, "the client is answered")
            running = wait_until(lambda: is_served_by_one(7) and instance_pid(), "one instance")
            ended = time.time()
            end(running)
            if delay > 0:
                wait_until(lambda: f"vpn 7: its instance is started again in {delay} s" in log_since(served, mark),
                           "the delay is logged")
            noted = time.time()
            if delay > 1:  # long enough to ask meanwhile
                assert ended - 1 < served.status()["next_start_time"] - delay <= noted
        asked = served.vqctl("status")
        assert asked.returncode == 1 and "starts again in" in asked.stdout
    assert client.longest >= 4
    assert served.status()["ends"] == 4 and "next_start_time" not in served.status()


def test_a_stopped_instance_is_replaced(fast, told):
    """It hangs: no event tells that."""
    stopped = instance_pid()
    with repaired(fast, told, "instance stopped (SIGSTOP)", "did not answer 3 queries over UDP", ends=True):
        os.kill(stopped, signal.SIGSTOP)
        assert "does not answer on port 53" in fast.status()["problems"]
        wait_until(lambda: instances(7) not in ([], [stopped]), "another instance", 20)
    assert instance_pid() != stopped


def test_an_instance_whose_tcp_side_is_dead_is_replaced(fast, told):
    """Twenty idle connections are all that dnsmasq serves."""
    idle, over = [], threading.Event()

    def occupy():
        enter("client_7")
        for _ in range(20):
            idle.append(socket.create_connection(("192.168.7.1", 53), timeout=1))
        over.wait(60)

    occupying = threading.Thread(target=occupy)
    occupying.start()
    try:
        wait_until(lambda: len(idle) == 20, "twenty connections")
        wait_until(lambda: fast.status().get("ends") == 1, "the instance is replaced")
    finally:
        over.set()
        occupying.join()
        for peer in idle:
            peer.close()
    assert fast.status()["last_end"] == "did not answer 3 queries over TCP"
    expect("192.168.7.10", "nas.vpn7.example", options=["+tcp"])
    wait_until(lambda: instances(7) == [instance_pid()], "one instance")


def process_state(pid):
    return pathlib.Path(f"/proc/{pid}/stat").read_text(encoding="ascii").rpartition(")")[2].split()[0]


def take_port(namespace, over, taken):
    enter(namespace)
    with contextlib.ExitStack() as stack:
        for kind in (socket.SOCK_STREAM, socket.SOCK_DGRAM):
            peer = stack.enter_context(socket.socket(socket.AF_INET, kind))
            peer.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, kind == socket.SOCK_STREAM)  # old connections
            peer.bind(("0.0.0.0", 53))
            if kind == socket.SOCK_STREAM:
                peer.listen()
        taken.set()
        over.wait(60)


def is_told_as_problem(box, *texts):
    """Whether the status has a problem and these texts. While the next start is tried, it has no problem."""
    status = box.vqctl("status")
    return status.returncode == 1 and all(text in status.stdout for text in texts)


def test_an_instance_is_started_again_when_its_port_is_free(served, told):
    over, taken = threading.Event(), threading.Event()
    taking = threading.Thread(target=take_port, args=("vpn_7", over, taken))
    with repaired(served, told, "port taken by another program, freed", "Address already in use", ends=True):
        served.agent.send_signal(signal.SIGSTOP)
        wait_until(lambda: process_state(served.agent.pid) == "T", "the agent is stopped")
        end(instance_pid())
        taking.start()
        try:
            assert taken.wait(5)
            served.agent.send_signal(signal.SIGCONT)
            wait_until(lambda: is_told_as_problem(served, "Address already in use"), "status tells why it does not start")
        finally:
            over.set()
            taking.join()


def test_an_instance_starts_when_a_bad_file_of_the_operator_is_removed(served, told):
    bad = directory() / "dnsmasq.d/own.conf"
    with repaired(served, told, "own bad file in dnsmasq.d, removed", "bad option at line 1 of", ends=True):
        bad.write_text("no-such-option\n")
        kill(instance_pid())
        wait_until(lambda: is_told_as_problem(served, "did not start: dnsmasq: bad option at line 1 of", bad.name),
                   "status tells why it does not start")
        bad.unlink()


# ---- pid files ----


def test_a_lost_pid_file_is_written_again(served, told):
    pid = instance_pid()
    with repaired(served, told, "pid file removed", "its pid file was gone", loses=False):
        pid_file().unlink()
    assert instance_pid() == pid


def test_an_emptied_pid_file_is_written_again(served, told):
    pid = instance_pid()
    with repaired(served, told, "pid file emptied", "its pid file was changed", loses=False):
        pid_file().write_text("")
    assert instance_pid() == pid


def test_a_pid_file_that_names_another_process_is_written_again(served, told):
    pid = instance_pid()
    with repaired(served, told, "pid file names another process", "its pid file was changed", loses=False):
        pid_file().write_text(f"{os.getpid()}\n")
    assert instance_pid() == pid


# ---- rules, routes, links ----


def test_a_deleted_table_is_installed_again(served, told):
    with repaired(served, told, "nftables table deleted", "the steering rule was gone") as client:
        delete_table()


def test_a_flushed_ruleset_is_installed_again(served, told):
    with repaired(served, told, "nft flush ruleset", "the steering rule was gone") as client:
        nft("flush", "ruleset")


def test_a_flushed_chain_is_filled_again(served, told):
    with repaired(served, told, "nftables chain flushed", "the steering rule was") as client:
        flush_chain()


def test_flushed_routes_are_added_again(served, told):
    with repaired(served, told, "table 199 flushed", "there were 0 of its 1 routes", loses=False):
        ip("route", "flush", "table", "199")
        began = time.monotonic()
        wait_until(routes, "the route is back")
        assert time.monotonic() - began < 2


def test_a_deleted_policy_rule_is_added_again(served, told):
    with repaired(served, told, "policy rule of table 199 deleted", "its policy rule", loses=False):
        ip("rule", "delete", "table", "199")


def test_a_loopback_interface_that_is_down_is_brought_up(served, told):
    with repaired(served, told, "loopback interface down", "its loopback interface", loses=False):
        ip("link", "set", "lo", "down")


def test_routes_come_back_after_a_link_flap(served, told):
    """The route goes over the link: while that is down, it cannot be added. The status tells it."""
    with repaired(served, told, "link of the upstream server down for 2 s", "there were 0 of its 1 routes",
                  loses=False):
        ip("link", "set", "lan0", "down")
        status = wait_until(lambda: (now := served.status())["problems"] and now, "the status tells the fault")
        assert any("there were 0 of its 1 routes" in problem for problem in status["problems"]), status["problems"]
        time.sleep(2)
        ip("link", "set", "lan0", "up")


def test_a_short_flap_of_all_links_leaves_nothing_behind(served, told):
    with repaired(served, told, "all links down and up", "there were 0 of its 1 routes"):
        for state in ("down", "up"):
            for name in ("lan0", "lan1", "wan0"):
                ip("link", "set", name, state)


# ---- files ----


def test_edited_hosts_are_written_again(fast, told):
    pid = instance_pid()
    with repaired(fast, told, "hosts edited", "hosts was changed", loses=False):
        edit_hosts()
    expect("192.168.7.10", "nas.vpn7.example")
    assert instance_pid() == pid


def test_unreadable_hosts_are_readable_again(fast, told):
    with repaired(fast, told, "hosts with mode 0600", "hosts was changed", loses=False):
        (directory() / "hosts").chmod(0o600)


def test_a_closed_directory_is_opened_again(fast, told):
    with repaired(fast, told, "directory of the files with mode 0700",
                  "its directory was closed to dnsmasq's user", loses=False):
        directory().chmod(0o700)


def test_a_closed_directory_of_all_vpns_is_opened_again(fast, told):
    with repaired(fast, told, "directory of all VPNs with mode 0700",
                  "its directory was closed to dnsmasq's user", loses=False):
        DNSMASQ.chmod(0o700)
        wait_until(lambda: DNSMASQ.stat().st_mode & 0o001, "the directory is open")


def test_the_closed_directory_of_the_agent_is_opened_again(fast, told):
    with repaired(fast, told, "/etc/kavel with mode 0700",
                  "its directory was closed to dnsmasq's user", loses=False):
        DNSMASQ.parent.chmod(0o700)
        wait_until(lambda: DNSMASQ.parent.stat().st_mode & 0o001, "the directory is open")


def test_a_service_that_is_off_is_right_again(fast):
    """Its files are written again, and there is no rule to remove."""
    fast.apply(message(enable=False))
    (directory() / "hosts").write_text("10.0.0.1 edited.example\n")

    wait_until(lambda: "edited" not in (directory() / "hosts").read_text(), "the file is written again")
    wait_until(lambda: fast.status()["repairs"] == 1, "the repair is told")
    time.sleep(2)
    assert fast.status()["problems"] == [] and fast.status()["repairs"] == 1
    end_agent(fast, signal.SIGKILL)
    fast.start()
    assert fast.status()["problems"] == []


def test_a_removed_directory_is_made_again(fast, told):
    with repaired(fast, told, "directory of the instance removed", "its directory was gone", loses=False):
        shutil.rmtree(directory())


def test_a_removed_file_of_the_instance_is_made_again(fast, told):
    with repaired(fast, told, "dnsmasq.conf removed", "dnsmasq.conf was gone", loses=False):
        (directory() / "dnsmasq.conf").unlink()


def test_an_edited_file_of_the_instance_is_made_again(fast, told):
    with repaired(fast, told, "dnsmasq.conf edited", "dnsmasq.conf was changed", loses=False):
        (directory() / "dnsmasq.conf").write_text("no-such-option\n")


# ---- the store ----


def test_a_removed_store_is_written_again(fast, told):
    with repaired(fast, told, "store removed", "its stored row was gone", loses=False):
        remove_store()


def test_a_deleted_row_is_written_again(fast, told):
    with repaired(fast, told, "row of the store deleted", "its stored row was gone", loses=False):
        forget_row()


# ---- namespaces and interfaces made anew ----


def test_a_namespace_that_is_made_again_is_served_again(ninth, told):
    with repaired(ninth, told, "namespace removed, made again", "its instance ran in another network namespace", vpn=9,
                  within=30):
        run("ip", "netns", "delete", "vpn_9")
        status = wait_until(lambda: (now := ninth.status(9))["problems"] and now, "the status tells the fault")
        assert "namespace vpn_9 does not exist" in status["problems"]
        for name, interface in (("client_9", "eth0"), ("upstream_9", "eth0"), ("upstream_9", "eth1")):
            run("ip", "-n", name, "link", "delete", interface)
        run("ip", "netns", "add", "vpn_9")
        connect_namespace(9)
    expect("192.168.9.10", "nas.vpn9.example", vpn=9)
    expect("198.51.100.9", "vpn9.example.net", vpn=9)
    assert ask("nas.vpn7.example") == ["192.168.7.10"]


def test_a_namespace_that_is_made_after_the_start_is_served_from_its_first_message_on(box):
    box.configure(vpn_config(7), vpn_config(9))
    box.start()
    try:
        run(ROOT / "scripts/lab", "up", 9)
        box.apply(message(9))
        expect("192.168.9.10", "nas.vpn9.example", vpn=9, server=ANYWHERE)
        expect("198.51.100.9", "vpn9.example.net", vpn=9)
        wait_until(lambda: box.status(9)["problems"] == [], f"all is right: {box.status(9)}")
    finally:
        remove_surroundings(9)


def test_an_interface_that_is_made_again_is_served_again(ninth, told):
    with repaired(ninth, told, "LAN interface removed, made again", "its interfaces had changed", vpn=9):
        mark = len(ninth.log())
        ip("link", "delete", "lan0", vpn=9)
        status = wait_until(lambda: (now := ninth.status(9))["problems"] and now, "the status tells the fault")
        assert 'interface "lan0" does not exist in namespace "vpn_9"' in status["problems"]
        wait_until(lambda: 'vpn 9: interface "lan0" does not exist' in log_since(ninth, mark), "the agent has seen it")
        ip("link", "add", "lan0", "type", "veth", "peer", "name", "eth0", "netns", "upstream_9", vpn=9)
        ip("address", "add", "10.9.0.1/24", "dev", "lan0", vpn=9)
        ip("link", "set", "lan0", "up", vpn=9)
        for address in ("10.9.0.53/24", "10.9.0.54/24"):
            run("ip", "-n", "upstream_9", "address", "add", address, "dev", "eth0")
        run("ip", "-n", "upstream_9", "link", "set", "eth0", "up")
    expect("198.51.100.9", "vpn9.example.net", vpn=9)


# ---- told, and not repaired ----


def lab_server(name):
    with open(f"/run/lab/{name}.pid", encoding="ascii") as file:
        return int(file.read())


def test_a_dead_upstream_is_told_and_restarts_nothing(fast, told):
    pid, upstream = instance_pid(), lab_server("general_7")
    os.kill(upstream, signal.SIGSTOP)
    try:
        status = wait_until(lambda: (now := fast.status())["problems"] and now, "the status tells the fault", 20)
        assert status["problems"] == ["upstream 10.7.0.53 does not answer"]
        assert fast.vqctl("status").returncode == 1
        time.sleep(4)
        assert ask("nas.vpn7.example") == ["192.168.7.10"]
    finally:
        os.kill(upstream, signal.SIGCONT)
    wait_until(lambda: not fast.status()["problems"], "the upstream answers again")
    assert instance_pid() == pid and "ends" not in fast.status()
    assert "vpn 7: upstream 10.7.0.53 answers again" in fast.log()
    told("upstream server dead", "upstream 10.7.0.53 does not answer", "not repaired", "DNS of local names: always")

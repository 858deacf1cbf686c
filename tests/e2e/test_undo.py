"""What a message would change, what was there before, and the way back: diff, store export, history, rollback."""

import json
import shutil

import pytest

from box import STORE, ask, expect, instance_pid, message, rows, vpn_config
from waiting import wait_until

BEFORE = {
    "dnshosts": [{"domain": "nas.example", "ip": "192.168.7.10"}, {"domain": "printer.example", "ip": "192.168.7.20"}],
    "dnsservers": [{"dnsserver": "10.7.0.53"}],
    "dnsmxhost": [{"sourcedomain": "b.example", "targetdomain": "mail.example", "preference": 10}],
    "dnsproxies": [{"domains": ["corp.example", "lab.example"], "serverips": ["10.7.0.54", "10.7.0.55"]}],
    "persistentflag": True,
}


@pytest.fixture
def kept(box):
    """A box that stores what it is asked to, whose VPN 7 is served."""
    shutil.rmtree(STORE.parent, ignore_errors=True)
    box.configure(vpn_config(7), vpn_config(8), persistence=True, store=str(STORE))
    box.start()
    box.apply(message(7, **BEFORE))
    return box


def entries(box):
    """The history of VPN 7, the newest message first."""
    return json.loads(box.vqctl("history", "7", "--json").stdout)["messages"]


def expect_none(name):
    wait_until(lambda: ask(name) == [], f"no answer for {name}, got {ask(name)}")


def diff(box, one):
    done = box.vqctl("diff", "-", input=json.dumps(one))
    assert done.stderr == ""
    return done.returncode, done.stdout.removeprefix("standard input: vpn 7: ").splitlines()


def test_a_message_that_is_in_force_changes_nothing(kept):
    assert diff(kept, message(7, **BEFORE, operation="reload")) == (0, ["no change"])
    assert diff(kept, message(7, **BEFORE)) == (0, ["no change; restarts the instance"])


def test_a_reload_is_enough_for_hosts_and_unbound_servers(kept):
    changed = {**BEFORE, "dnsservers": [{"dnsserver": "10.7.0.54"}],
               "dnshosts": [{"domain": "nas.example", "ip": "192.168.7.11"}]}
    lines = ["- host nas.example 192.168.7.10", "+ host nas.example 192.168.7.11", "- host printer.example 192.168.7.20",
             "- server 10.7.0.53", "+ server 10.7.0.54"]
    assert diff(kept, message(7, **changed, operation="reload")) == (1, ["5 changes", *lines])
    assert diff(kept, message(7, **changed)) == (
        1, ['5 changes; restarts the instance, "operation": "reload" is enough', *lines])


@pytest.mark.parametrize("change, line", [
    ({"dnsmxhost": []}, "- mx b.example mail.example 10"),
    ({"dnsservers": [{"dnsserver": "10.7.0.53", "ifname": "wan0"}]}, "+ server 10.7.0.53 wan0"),
    ({"dnsproxies": []}, "- forward lab.example 10.7.0.55"),
])
def test_what_is_read_at_a_start_needs_a_restart(kept, change, line):
    code, lines = diff(kept, message(7, **{**BEFORE, **change}, operation="reload"))
    assert code == 1 and lines[0].endswith('; needs "operation": "reboot"') and line in lines


def test_nothing_in_force_adds_everything(kept):
    done = kept.vqctl("diff", "-", input=json.dumps(message(8, operation="reload")))
    assert (done.returncode, done.stdout.splitlines()) == (1, [
        'standard input: vpn 8: nothing is in force; 4 changes; needs "operation": "reboot"', "+ enable true",
        "+ persistentflag false", "+ host nas.vpn8.example 192.168.8.10", "+ server 10.8.0.53"])


def test_switching_off_ends_the_instance(kept):
    code, lines = diff(kept, message(7, **BEFORE, enable=False, operation="reload"))
    assert (code, lines) == (1, ["2 changes; ends the instance", "- enable true", "+ enable false"])


def test_a_message_that_would_be_refused_is_told(kept):
    code, lines = diff(kept, message(7, dnshosts=[{"domain": "bad_name!", "ip": "10.0.0.1"}]))
    assert code == 1 and lines[0].startswith("would be refused (-22 ")


def test_diff_changes_nothing(kept):
    diff(kept, message(7, enable=False))
    expect("192.168.7.10", "nas.example")


def test_diff_after_a_start_from_the_store(kept):
    kept.cut_power()
    kept.start()
    assert diff(kept, message(7, **BEFORE, operation="reload")) == (0, ["no change"])


def test_what_is_exported_can_be_applied_again(kept, tmp_path):
    stored = rows()
    exported = kept.vqctl("store", "export", "7")
    assert exported.returncode == 0
    assert json.loads(exported.stdout) == {**message(7, **BEFORE), "operation": "reboot"}

    kept.apply(message(7, persistentflag=True))
    assert rows() != stored
    kept.apply(json.loads(exported.stdout))
    assert rows() == stored


def test_every_record_is_exported_to_a_file(kept, tmp_path):
    kept.apply(message(8, persistentflag=True))
    directory = tmp_path / "export"
    done = kept.vqctl("store", "export", "--output", directory)
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout == f"vpn 7: {directory}/vpn_7.json\nvpn 8: {directory}/vpn_8.json\n"
    for vpn in (7, 8):
        assert json.loads((directory / f"vpn_{vpn}.json").read_text())["vpnid"] == vpn
        assert kept.vqctl("diff", directory / f"vpn_{vpn}.json").returncode == 0
    assert kept.vqctl("apply", directory / "vpn_7.json", directory / "vpn_8.json").returncode == 0


def test_all_records_need_a_directory(kept):
    done = kept.vqctl("store", "export")
    assert done.returncode == 2 and "--output" in done.stderr
    messages = json.loads(kept.vqctl("store", "export", "--json").stdout)["messages"]
    assert [one["vpn"] for one in messages] == [7]


def test_what_is_not_stored_is_not_exported(kept):
    done = kept.vqctl("store", "export", "8")
    assert (done.returncode, done.stdout) == (1, "") and "nothing is stored for vpn 8" in done.stderr


def test_history_lists_the_newest_message_first(kept):
    kept.vqctl("apply", "--revision", "r2", "-", input=json.dumps(message(7)))
    kept.refused(message(7, operation=9))
    kept.apply(message(8))

    lines = kept.vqctl("history", "7").stdout.splitlines()
    assert lines[0].split() == ["VPN", "NUMBER", "TIME", "SENDER", "REVISION", "BYTES", "RESULT", "OUTCOME"]
    assert len(lines) == 4
    assert "  -22  refused: " in lines[1] and " r2 " in lines[2] and lines[3].endswith("  0  applied")

    entries = json.loads(kept.vqctl("history", "--json").stdout)["messages"]
    assert [(one["vpn"], one["number"], one["revision"]) for one in entries] == [
        (7, 1, None), (7, 2, "r2"), (7, 3, None), (8, 1, None)]


def test_a_message_of_the_history_can_be_applied_again(kept):
    kept.apply(message(7))
    shown = kept.vqctl("history", "7", "--show", "2")
    assert shown.returncode == 0 and json.loads(shown.stdout) == message(7, **BEFORE)
    kept.apply(json.loads(shown.stdout))
    assert diff(kept, message(7, **BEFORE))[0] == 0


def test_a_number_that_the_history_does_not_have_is_bad_input(kept):
    done = kept.vqctl("history", "7", "--show", "2")
    assert done.returncode == 2 and "there is no message 2: the agent keeps 1 message of this VPN" in done.stderr


def test_rollback_brings_back_the_message_before(kept):
    before = instance_pid()
    kept.vqctl("apply", "--revision", "r2", "-", input=json.dumps(message(7, **{**BEFORE, "dnshosts": []})))
    expect_none("nas.example")

    done = kept.vqctl("rollback", "7")

    assert (done.returncode, done.stderr) == (0, "")
    lines = done.stdout.splitlines()
    assert lines[0].startswith("vpn 7: back to message 2 of ") and lines[0].endswith(": 2 changes")
    assert lines[1:] == ["+ host nas.example 192.168.7.10", "+ host printer.example 192.168.7.20", "vpn 7: applied"]
    expect("192.168.7.10", "nas.example")
    assert instance_pid() != before, "the message between them restarted it"
    assert [entry["revision"] for entry in entries(kept)] == [None, "r2", None]


def test_a_second_rollback_takes_the_first_one_back(kept):
    kept.apply(message(7, persistentflag=True))
    stored = rows()
    assert kept.vqctl("rollback", "7").returncode == 0
    assert rows() != stored
    expect("192.168.7.10", "nas.example")
    assert kept.vqctl("rollback", "7").returncode == 0
    assert rows() == stored
    expect("192.168.7.10", "nas.vpn7.example")


def test_rollback_keeps_the_instance_if_a_reload_is_enough(kept):
    kept.apply(message(7, **{**BEFORE, "dnshosts": []}, operation="reload"))
    before = instance_pid()
    assert kept.vqctl("rollback", "7").returncode == 0
    expect("192.168.7.10", "nas.example")
    assert instance_pid() == before


def test_rollback_after_a_stop_starts_the_instance(kept):
    assert kept.vqctl("stop", "--vpn", "7").returncode == 0
    done = kept.vqctl("rollback", "7")
    assert done.returncode == 0 and "nothing is in force; " in done.stdout
    expect("192.168.7.10", "nas.example")


def test_rollback_to_a_number(kept):
    kept.apply(message(7))
    kept.apply(message(7, enable=False))
    done = kept.vqctl("rollback", "7", "--to", "3")
    assert done.returncode == 0 and done.stdout.startswith("vpn 7: back to message 3 of ")
    expect("192.168.7.10", "nas.example")
    assert kept.vqctl("rollback", "7", "--to", "9").returncode == 2


def test_rollback_without_another_message_does_nothing(kept):
    done = kept.vqctl("rollback", "7")
    assert (done.returncode, done.stdout) == (1, "") and "differs from what is in force" in done.stderr

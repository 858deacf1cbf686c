"""What a message would change, what was there before, and the way back: diff, store export, history, rollback, confirm."""

import json
import shutil
import time

import pytest

from box import STATE, STORE, ask, end, expect, instance_pid, instances, message, rows, vpn_config
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


AFTER = message(7, dnshosts=[{"domain": "after.example", "ip": "192.168.7.99"}], persistentflag=True)


def apply_to_confirm(box, one, seconds):
    done = box.vqctl("apply", "--confirm", seconds, "-", input=json.dumps(one))
    assert (done.returncode, done.stdout) == (0, f"standard input: vpn {one['vpnid']}: applied\n")
    assert done.stderr == (f"vqctl: standard input: vpn {one['vpnid']}: undone in {seconds} s unless it is confirmed: "
                           f"vqctl confirm {one['vpnid']}\n")


def sleep_until(moment):
    time.sleep(max(0.0, moment - time.monotonic()))


def unconfirmed(vpn=7):
    return (STATE / f"vpn_{vpn}.unconfirmed").exists()


def test_a_confirmed_message_stays(kept):
    stored, began = rows()[7], time.monotonic()
    apply_to_confirm(kept, AFTER, 8)
    expect("192.168.7.99", "after.example")
    assert rows()[7] == stored and unconfirmed()
    assert "vpn 7: not confirmed, undone in " in kept.vqctl("status", "--vpn", "7").stdout
    assert 0 < kept.status()["undone_in_seconds"] <= 8

    done = kept.vqctl("confirm", "7")

    assert (done.returncode, done.stdout, done.stderr) == (0, "vpn 7: confirmed\n", "")
    assert "after.example" in rows()[7] and not unconfirmed()
    assert "undone_in_seconds" not in kept.status()
    sleep_until(began + 9)
    expect("192.168.7.99", "after.example")
    assert [(one["outcome"], one["undone"]) for one in entries(kept)[:2]] == [
        ("confirmed", False), ("applied, to be confirmed within 8 s", False)]


def test_a_message_that_is_not_confirmed_is_undone(kept):
    stored = rows()[7]
    kept.vqctl("apply", "--revision", "good", "-", input=json.dumps(message(7, **BEFORE, operation="reload")))
    apply_to_confirm(kept, AFTER, 1)
    expect("192.168.7.10", "nas.example")
    expect("10 mail.example.", "b.example", "MX")
    wait_until(lambda: "vpn 7: not confirmed within 1 s; the message before it is in force again" in kept.log(), kept.log)
    assert rows()[7] == stored and not unconfirmed()
    assert kept.status()["revision"] == "good"
    newest, undone = entries(kept)[:2]
    assert (newest["sender"], newest["revision"], newest["outcome"]) == ("agent", "good", "applied")
    assert undone["undone"] and not newest["undone"]
    done = kept.vqctl("rollback", "7")
    assert done.returncode == 1, "the message that was undone is not the way back"


def test_where_nothing_was_in_force_the_vpn_is_stopped(kept):
    apply_to_confirm(kept, message(8, persistentflag=True), 1)
    wait_until(lambda: "vpn 8: not confirmed within 1 s; nothing was in force before it: stopped" in kept.log(), kept.log)
    assert instances(8) == [] and 8 not in rows() and list(STATE.glob("vpn_8.*")) == []
    newest = json.loads(kept.vqctl("history", "8", "--json").stdout)["messages"][0]
    assert (newest["sender"], newest["outcome"], newest["bytes"]) == ("agent", "not confirmed, stopped", 0)


def test_a_restart_of_the_agent_does_not_confirm(kept):
    apply_to_confirm(kept, AFTER, 2)
    assert kept.stop() == 0
    kept.start()
    expect("192.168.7.10", "nas.example")
    wait_until(lambda: not unconfirmed(), "the undo is over")


def test_the_time_goes_on_without_an_agent(kept):
    apply_to_confirm(kept, AFTER, 4)
    kept.agent.kill()
    kept.agent.wait()
    time.sleep(4.2)
    expect("192.168.7.99", "after.example")
    kept.start()
    expect("192.168.7.10", "nas.example")


def test_a_restart_of_the_box_brings_back_the_row_of_before(kept):
    apply_to_confirm(kept, AFTER, 3600)
    kept.cut_power()
    kept.start()
    expect("192.168.7.10", "nas.example")
    assert not unconfirmed()


def test_a_row_that_is_held_back_is_not_repaired(kept):
    apply_to_confirm(kept, message(7), 3600)
    assert kept.vqctl("repair").stdout == "nothing to repair\n"
    assert kept.stop() == 0
    kept.start()
    assert 7 in rows() and kept.status()["problems"] == []
    assert kept.vqctl("confirm", "7").returncode == 0
    assert 7 not in rows()


def test_another_message_confirms(kept):
    began = time.monotonic()
    apply_to_confirm(kept, AFTER, 5)
    kept.apply({**AFTER, "dnshosts": [{"domain": "last.example", "ip": "192.168.7.98"}]})
    assert not unconfirmed() and "last.example" in rows()[7]
    sleep_until(began + 6)
    expect("192.168.7.98", "last.example")


def test_a_refused_message_confirms_nothing(kept):
    apply_to_confirm(kept, AFTER, 5)
    kept.refused(message(7, operation=9))
    assert unconfirmed()
    expect("192.168.7.10", "nas.example")


def test_a_refused_message_has_nothing_to_confirm(kept):
    done = kept.vqctl("apply", "--confirm", "60", "-",
                      input=json.dumps(message(7, dnshosts=[{"domain": "bad_name!", "ip": "10.0.0.1"}])))
    assert done.returncode == 1 and "undone in" not in done.stderr
    assert not unconfirmed()
    assert kept.vqctl("confirm", "7").returncode == 1


def test_two_unconfirmed_messages_go_back_to_the_one_before_both(kept):
    apply_to_confirm(kept, AFTER, 3600)
    apply_to_confirm(kept, {**AFTER, "dnshosts": []}, 1)
    expect("192.168.7.10", "nas.example")
    assert [one["undone"] for one in entries(kept)] == [False, True, True, False]


def test_stopping_a_vpn_ends_the_wait(kept):
    apply_to_confirm(kept, AFTER, 1)
    assert kept.vqctl("stop", "--vpn", "7").returncode == 0
    time.sleep(1.5)
    assert instances(7) == [] and not unconfirmed()


def test_an_instance_that_ends_meanwhile_does_not_keep_the_undo_away(kept):
    """An instance that was killed is started again meanwhile."""
    apply_to_confirm(kept, AFTER, 1)
    end(instance_pid())
    expect("192.168.7.10", "nas.example")


@pytest.mark.parametrize("words", [("--confirm", "0"), ("--confirm", "3601"), ("--confirm", "x")])
def test_the_time_has_bounds(kept, words):
    assert kept.vqctl("apply", *words, "-", input=json.dumps(AFTER)).returncode == 2


def test_one_message_at_a_time_is_confirmed(kept, tmp_path):
    file = tmp_path / "a.json"
    file.write_text(json.dumps(AFTER))
    done = kept.vqctl("apply", "--confirm", "9", file, file)
    assert (done.returncode, done.stderr) == (2, "vqctl: --confirm: it takes one file, not 2\n")
    assert kept.vqctl("confirm", "7").returncode == 1
    assert kept.vqctl("confirm", "99").returncode == 1

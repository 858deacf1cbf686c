"""Mistakes in message files, and a batch that is interrupted."""

import json
import os
import pty
import signal
import subprocess

from box import BUILD, CONFIG, message, run


def write(tmp_path, name, content):
    path = tmp_path / name
    path.write_text(content if isinstance(content, str) else json.dumps(content))
    return path


def batch(tmp_path, count):
    return [write(tmp_path, f"{number:03}.json", message(dnshosts=[{"domain": f"n{number}.example", "ip": "10.0.0.1"}],
                                                         operation="reload")) for number in range(count)]


def test_a_message_without_a_vpn_is_refused_unless_it_is_for_the_box(running, tmp_path):
    for_box = write(tmp_path, "box.json", message(vpnid=None, dnsservers=None))
    for_vpn = write(tmp_path, "vpn.json", message())
    for command in ("apply", "check"):
        done = running.vqctl(command, for_box)
        assert (done.returncode, done.stdout) == (2, "")
        assert done.stderr == f"vqctl: {for_box}: vpnid: is missing; give --box if the message is for the box itself\n"
        done = running.vqctl(command, "--box", for_vpn)
        assert (done.returncode, done.stdout) == (2, "")
        assert done.stderr == f"vqctl: {for_vpn}: vpnid: is 7, but --box is given: the box itself is 0\n"
    done = running.vqctl("apply", "--box", for_box)
    assert (done.returncode, done.stdout) == (0, f"{for_box}: vpn 0: applied\n"), done.stderr


def test_the_agent_names_a_key_that_its_configuration_has_twice(box):
    CONFIG.write_text('{"platform": "cpe",\n  "log": "debug", "log": "error"}')
    done = run(BUILD / "vqagent", check=False)
    assert done.returncode == 2
    assert 'line 2, column 19: key "log" is there twice' in done.stderr


def test_an_interrupted_batch_tells_what_was_sent(running, tmp_path):
    running.apply(message())
    files = batch(tmp_path, 3)
    running.agent.send_signal(signal.SIGSTOP)
    for number, code in ((signal.SIGINT, 130), (signal.SIGTERM, 143)):
        vqctl = subprocess.Popen([BUILD / "vqctl", "-v", "apply", *files], text=True, stdout=subprocess.PIPE,
                                 stderr=subprocess.PIPE)
        assert vqctl.stderr.readline().startswith(f"vqctl: sending {files[0]}: ")
        # It blocks these signals before it sends anything.
        vqctl.send_signal(number)
        out, err = vqctl.communicate(timeout=10)
        assert (vqctl.returncode, out) == (code, "")
        assert err == (f"vqctl: interrupted\nvqctl: in flight, may still be applied: {files[0]}\n"
                       f"vqctl: not sent: {files[1]}, {files[2]}\n")
    running.agent.send_signal(signal.SIGCONT)


def test_a_silent_agent_is_reported_after_some_seconds(running):
    running.agent.send_signal(signal.SIGSTOP)
    done = running.vqctl("--timeout", "4", "status")
    running.agent.send_signal(signal.SIGCONT)
    assert done.returncode == 3
    assert done.stderr == ("vqctl: the agent has not replied yet; waiting up to 4 s\n"
                           "vqctl: the agent did not reply within 4 s\n")


def test_a_terminal_shows_how_far_a_batch_is(running, tmp_path):
    running.apply(message())
    leader, terminal = pty.openpty()
    done = subprocess.run([BUILD / "vqctl", "apply", *batch(tmp_path, 20)], stdout=subprocess.PIPE, stderr=terminal)
    os.close(terminal)
    shown = b""
    while chunk := read_terminal(leader):
        shown += chunk
    os.close(leader)
    assert done.returncode == 0 and done.stdout.count(b": applied\n") == 20
    assert shown == b"".join(b"%d/20\r" % number + b" " * len(b"%d/20" % number) + b"\r" for number in range(1, 21))


def read_terminal(leader):
    try:
        return os.read(leader, 4096)
    except OSError:  # the other end is closed, and everything was read
        return b""

"""The program that leads a command into the namespace of a VPN."""

import os

from box import BUILD, instance_pid, message, run

TOOL = BUILD / "netns-exec"


def test_the_command_runs_in_the_namespace():
    inside = run(TOOL, "--net=/run/netns/vpn_7", "/bin/ls", "-iL", "/proc/self/ns/net").stdout.split()[0]
    assert int(inside) == os.stat("/run/netns/vpn_7").st_ino


def test_it_makes_no_mount_namespace():
    inside = run(TOOL, "--net=/run/netns/vpn_7", "/bin/readlink", "/proc/self/ns/mnt").stdout.strip()
    assert inside == os.readlink("/proc/self/ns/mnt")


def test_the_command_gets_its_arguments_and_its_status_is_kept():
    ran = run(TOOL, "--net=/run/netns/vpn_7", "/bin/sh", "-c", 'echo "$1"; exit 3', "sh", "a b", check=False)
    assert (ran.stdout, ran.returncode) == ("a b\n", 3)


def test_what_is_wrong_is_told():
    for arguments, status, told in (
            ((), 2, "usage: netns-exec --net=FILE COMMAND [ARGUMENT...]\n"),
            (("--net=/run/netns/vpn_7",), 2, "usage: netns-exec --net=FILE COMMAND [ARGUMENT...]\n"),
            (("/run/netns/vpn_7", "/bin/true"), 2, "usage: netns-exec --net=FILE COMMAND [ARGUMENT...]\n"),
            (("--net=/run/netns/none", "/bin/true"), 126, "netns-exec: /run/netns/none: No such file or directory\n"),
            (("--net=/etc/passwd", "/bin/true"), 126, "netns-exec: /etc/passwd: Invalid argument\n"),
            (("--net=/run/netns/vpn_7", "/bin/none"), 127, "netns-exec: /bin/none: No such file or directory\n"),
            (("--net=/run/netns/vpn_7", "/etc/passwd"), 126, "netns-exec: /etc/passwd: Permission denied\n")):
        ran = run(TOOL, *arguments, check=False)
        assert (ran.returncode, ran.stderr) == (status, told), arguments


def test_an_instance_is_started_by_it(running):
    """Its own process image is gone; the instance is in the namespace, in the agent's mount namespace."""
    running.apply(message())
    assert os.stat(f"/proc/{instance_pid()}/ns/net").st_ino == os.stat("/run/netns/vpn_7").st_ino
    assert os.readlink(f"/proc/{instance_pid()}/ns/mnt") == os.readlink(f"/proc/{running.agent.pid}/ns/mnt")

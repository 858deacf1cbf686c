"""vqagent keeps every promise of the host interface: the check of hosts finds nothing, on a CPE and on a POP."""

import re

import pytest

from box import BUILD, CONFIG, ROOT, run, vpn_config

# Judged by the whole agent. The other promises have contract tests, too.
OF_THE_AGENT = {
    "platform.names", "platform.dnsmasq", "platform.run-directory", "platform.box-directory", "platform.box-readable",
    "platform.stack", "call.platform-first", "call.platform", "call.init-first", "call.box-namespace", "call.message",
    "call.pid-file-awaited", "call.restarts", "call.lost-pid-file", "call.late-start", "call.restored", "thread.main",
    "thread.one",
}
# vqagent recovers rows one by one, and none where none is stored.
NOT_JUDGED = {"call.recover-late"}
# The box itself has no namespace, no routes of the module and, for the module, no list of interfaces.
NOT_OF_THE_BOX = {"netns.prefix-", "netns.switch", "netio.lan-names", "netio.independent", "netio.release", "route."}
STORE = {"persistence": True, "store": "/run/kavel-store/agent.db"}


def check_host(*options, agent=(BUILD / "vqagent", "--module", "%m")):
    return run(BUILD / "vq-hostcheck", "--timeout", 60, "--start", 60, *options, "--", *agent, check=False, timeout=280)


def judged(done):
    """The results by id: "ok", "not ok", or the reason why nothing was judged."""
    lines = [re.fullmatch(r"(ok|not ok) \d+ - (\S+)(?: # SKIP (.*)| # TODO should)?", line)
             for line in done.stdout.splitlines()]
    return {found[2]: found[3] or found[1] for found in lines if found}


def promises():
    return set(re.findall(r"^(\S+\.\S+) \((?:must|should)\)$", run(BUILD / "vq-hostcheck", "--list").stdout, re.MULTILINE))


def apply_command():
    return f"{BUILD}/vqctl apply --binary %f"


def test_agent_of_a_cpe_keeps_every_promise(box):
    box.configure(vpn_config(7), vpn_config(8), **STORE)

    done = check_host("--vpn", 7, "--apply", apply_command())

    assert done.returncode == 0, done.stdout + done.stderr
    results = judged(done)
    assert set(results) == promises()
    assert {promise for promise, result in results.items() if result != "ok"} == NOT_JUDGED | {"rule.dnat"}
    assert OF_THE_AGENT <= set(results)


@pytest.fixture(scope="module")
def pop_lab(lab):
    run(ROOT / "scripts/lab", "pop")


def test_agent_of_a_pop_keeps_every_promise(box, pop_lab):
    box.configure(platform="pop", c2p=["c2p0"], wan=["up0"], **STORE)

    done = check_host("--vpn", 0, "--platform", "pop", "--apply", apply_command())

    assert done.returncode == 0, done.stdout + done.stderr
    results = judged(done)
    skipped = {promise for promise, result in results.items() if result != "ok"}
    assert {promise for promise in skipped if not promise.startswith(tuple(NOT_OF_THE_BOX))} == NOT_JUDGED
    assert OF_THE_AGENT | {"rule.dnat", "rule.box", "store.add", "netio.count"} <= set(results) - skipped


def test_only_selects_promises_by_the_begin_of_their_ids(box):
    done = check_host("--vpn", 7, "--only", "string.")

    assert done.returncode == 0, done.stdout + done.stderr
    assert set(judged(done)) == {promise for promise in promises() if promise.startswith("string.")}


def test_wrong_platform_is_named(box):
    done = check_host("--vpn", 7, "--platform", "pop", "--only", "call.platform")

    assert done.returncode == 1, done.stdout + done.stderr
    assert judged(done)["call.platform"] == "not ok"
    assert "seen:      the entry of a CPE is called on a POP" in done.stdout


def test_broken_promise_is_told_with_its_header_and_its_effect(box):
    """The directory below that of the instances cannot be entered by the user of dnsmasq."""
    box.start()
    box.stop()
    CONFIG.parent.chmod(0o700)
    try:
        done = check_host("--vpn", 7, "--only", "platform.box-readable")
    finally:
        CONFIG.parent.chmod(0o755)

    assert done.returncode == 1, done.stdout + done.stderr
    assert re.search(r"not ok 1 - platform.box-readable\n"
                     r"  promised:  vqFile.h:\d+: the directories of the instances can be searched by every user\n"
                     r"  seen:      /etc/kavel has mode 0700\n"
                     r"  otherwise: dnsmasq reads its files as an unprivileged user", done.stdout), done.stdout


def test_agent_that_never_calls_is_no_success(box):
    done = check_host("--vpn", 7, agent=("true", "%m"))

    assert done.returncode == 2
    assert "ended with status 0 without calling the library" in done.stderr


def test_agent_that_cannot_be_started_is_no_success(box):
    done = check_host(agent=("/no/such/agent", "%m"))

    assert done.returncode == 2
    assert "/no/such/agent: No such file or directory" in done.stderr


# A host in another language, which provides nothing.
EMPTY_HOST = """
import ctypes, sys, time
library = ctypes.CDLL(sys.argv[1])
library.VQCtrl_AgentSetCPEAdvancedDnsOps()
library.VQCtrl_DnsmasqConfInitByVpnId(7)
time.sleep(60)
"""


def test_names_that_an_agent_lacks_are_told(box):
    done = check_host("--vpn", 7, "--only", "json.", agent=("/usr/bin/python3", "-c", EMPTY_HOST, "%m"))

    assert done.returncode == 1
    assert set(judged(done).values()) == {"not ok"}
    assert "seen:      the process lacks json_tokener_parse" in done.stdout
    done = check_host("--only", "platform.names", agent=("/usr/bin/python3", "-c", EMPTY_HOST, "%m"))
    assert re.search("seen:      the process lacks VQ_AgentLogGetTag VQ_AgentMemAlloc .* VQ_CmdExec", done.stdout)


@pytest.mark.parametrize("options", [(), ("--vpn", "seven"), ("--platform", "router"), ("--nothing",)])
def test_wrong_usage_is_refused(options):
    assert run(BUILD / "vq-hostcheck", *options, check=False).returncode == 2

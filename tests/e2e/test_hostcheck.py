"""vqagent keeps every promise of the host interface: the check of hosts finds nothing, on a CPE and on a POP."""

import os
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


# A sanitizer's allocator must return null where memory is exhausted, and give memory back where growth is measured.
SANITIZER = {"ASAN_OPTIONS": "allocator_may_return_null=1:quarantine_size_mb=0:thread_local_quarantine_size_kb=0"}


def check_host(*options, agent=(BUILD / "vqagent", "--module", "%m")):
    return run(BUILD / "vq-hostcheck", "--timeout", 60, "--start", 60, *options, "--", *agent, check=False, timeout=280,
               env={**os.environ, **SANITIZER})


def judged(done):
    """The results by id: "ok", "not ok", or the reason why nothing was judged."""
    lines = [re.fullmatch(r"(ok|not ok) \d+ - (\S+)(?: # SKIP (.*)| # TODO should)?", line)
             for line in done.stdout.splitlines()]
    return {found[2]: found[3] or found[1] for found in lines if found}


def promises():
    listed = run(BUILD / "vq-hostcheck", "--list").stdout
    return set(re.findall(r"^(\S+\.\S+) \((?:must|should)\)$", listed, re.MULTILINE))


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


def host_that(calls):
    """A host in another language, which provides nothing and makes these calls."""
    program = f"""
import ctypes, sys, threading, time
library = ctypes.CDLL(sys.argv[1])
{calls}
time.sleep(60)
"""
    return "/usr/bin/python3", "-c", program, "%m"


SET_CPE = "library.VQCtrl_AgentSetCPEAdvancedDnsOps()\n"
INIT = "library.VQCtrl_DnsmasqConfInitByVpnId(7)\n"
RECOVER = "library.VQCtrl_AgentRecoverAdvancedDnsConf()\n"
RELEASE = "library.VQCtrl_DnsmasqConfRelaseByVpnId(8)\n"
LEAVE_NAMESPACE = "ctypes.CDLL(None).unshare(0x40000000)\n"
needs_no_sanitizer = pytest.mark.skipif("KAVEL_SANITIZED" in os.environ,
                                        reason="python loads no library with a sanitizer")


@needs_no_sanitizer
def test_names_that_an_agent_lacks_are_told(box):
    done = check_host("--vpn", 7, "--only", "json.", agent=host_that(SET_CPE + INIT))

    assert done.returncode == 1
    assert set(judged(done).values()) == {"not ok"}
    assert "seen:      the process lacks json_tokener_parse" in done.stdout
    done = check_host("--only", "platform.names", agent=host_that(SET_CPE + INIT))
    assert re.search("seen:      the process lacks VQ_AgentLogGetTag VQ_AgentMemAlloc .* VQ_CmdExec", done.stdout)


@needs_no_sanitizer
@pytest.mark.parametrize("calls, broken", [
    (SET_CPE + INIT + RECOVER, set()),
    (INIT + SET_CPE, {"call.platform-first", "call.platform"}),
    (SET_CPE + RECOVER, {"call.init-first", "call.recover-late"}),
    (SET_CPE + INIT + LEAVE_NAMESPACE + RELEASE, {"call.box-namespace"}),
    (LEAVE_NAMESPACE + SET_CPE + INIT, {"call.box-namespace"}),
])
def test_wrong_order_of_calls_is_named(box, calls, broken):
    done = check_host("--vpn", 7, "--only", "call.", agent=host_that(calls))

    assert done.returncode == (1 if broken else 0), done.stdout + done.stderr
    assert {promise for promise, result in judged(done).items() if result == "not ok"} == broken


@needs_no_sanitizer
def test_recovery_after_the_start_is_judged(box):
    done = check_host("--vpn", 7, "--only", "call.recover", agent=host_that(SET_CPE + INIT + RECOVER))

    assert judged(done) == {"call.recover-late": "ok"}


# The message of the kit without all that follows its hosts.
CUT_MESSAGE = """
class Host(ctypes.Structure):
    _fields_ = [("descriptor", ctypes.c_void_p), ("unknown", ctypes.c_uint), ("fields", ctypes.c_void_p),
                ("domain", ctypes.c_char_p), ("ip", ctypes.c_uint32), ("rest", ctypes.c_char * 64)]
class Conf(ctypes.Structure):
    _fields_ = [("descriptor", ctypes.c_void_p), ("unknown", ctypes.c_uint), ("fields", ctypes.c_void_p),
                ("enable", ctypes.c_int), ("operation", ctypes.c_uint32), ("hostCount", ctypes.c_size_t),
                ("hosts", ctypes.c_void_p), ("rest", ctypes.c_char * 256)]
host = Host(domain=b"hostcheck.example", ip=0xC0000201)
hosts = (ctypes.c_void_p * 1)(ctypes.addressof(host))
conf = Conf(operation=1, hostCount=1, hosts=ctypes.addressof(hosts))
library.VQCtrl_ConfigAdvancedDns(ctypes.byref(ctypes.c_void_p(ctypes.addressof(conf))))
"""


@needs_no_sanitizer
def test_message_without_some_of_its_fields_is_named(box):
    done = check_host("--vpn", 7, "--only", "call.message", agent=host_that(SET_CPE + INIT + CUT_MESSAGE))

    assert done.returncode == 1, done.stdout + done.stderr
    assert "seen:      0 servers, or another address than 192.0.2.53" in done.stdout


@needs_no_sanitizer
def test_call_on_another_thread_is_named(box):
    other = "threading.Thread(target=library.VQCtrl_DnsmasqConfRelaseByVpnId, args=(8,)).start()\n"
    done = check_host("--vpn", 7, "--only", "thread.", agent=host_that(SET_CPE + INIT + other))

    assert done.returncode == 1, done.stdout + done.stderr
    assert judged(done) == {"thread.main": "not ok", "thread.one": "ok"}


@needs_no_sanitizer
def test_call_beside_another_one_is_named(box):
    """The call that runs the checks takes a while."""
    over_and_over = "lambda: [library.VQCtrl_DnsmasqConfRelaseByVpnId(8) for _ in range(10000000)]"
    beside = f"threading.Thread(target={over_and_over}, daemon=True).start()\n"
    done = check_host("--vpn", 7, agent=host_that(SET_CPE + beside + INIT))

    assert done.returncode == 1, done.stdout + done.stderr
    assert judged(done)["thread.one"] == "not ok"


@pytest.mark.parametrize("options", [(), ("--vpn", "seven"), ("--platform", "router"), ("--nothing",)])
def test_wrong_usage_is_refused(options):
    assert run(BUILD / "vq-hostcheck", *options, check=False).returncode == 2

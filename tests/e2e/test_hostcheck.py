"""vqagent keeps every promise of the host interface: the check of hosts finds nothing, on a CPE and on a POP."""

import contextlib
import os
import re
import shutil

import pytest

from box import BUILD, CONFIG, ROOT, run, vpn_config

# Judged by the whole agent. The other promises have contract tests, too.
OF_THE_AGENT = {
    "platform.names", "platform.dnsmasq", "platform.run-directory", "platform.box-directory", "platform.box-readable",
    "platform.stack", "call.platform-first", "call.platform", "call.init-first", "call.box-namespace", "call.message",
    "call.pid-file-awaited", "call.restarts", "call.lost-pid-file", "call.late-start", "call.restored", "thread.main",
    "thread.one", "module.version", "module.exports",
}
# vqagent recovers rows one by one, and none where none is stored. A sanitizer adds imports to the module.
NOT_JUDGED = {"call.recover-late"} | ({"module.imports"} if "KAVEL_SANITIZED" in os.environ else set())
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


# As an agent with another data plane than the kernel's would write it.
PROBE = """
for table in 199 200; do
    ip -n vpn_7 route show table $table 2>/dev/null | while read -r target rest; do echo "route 7 $table $target/32 $rest"; done
done
for vpn in 0 7; do
    [ $vpn = 0 ] && enter= || enter="ip netns exec vpn_$vpn"
    $enter nft list tables | sed -n 's/.* kavel_\\(dns\\|dnat\\)_0_\\([0-9]*\\)$/rule \\1 0 \\2 0/p'
done
"""


def test_probe_shows_routes_and_rules(box):
    box.configure(vpn_config(7), vpn_config(8))

    done = check_host("--vpn", 7, "--only", "r", "--probe", PROBE)

    assert done.returncode == 0, done.stdout + done.stderr
    assert {promise for promise, result in judged(done).items() if result != "ok"} == {"rule.dnat"}


def test_probe_that_shows_nothing_is_believed(box):
    done = check_host("--vpn", 7, "--only", "r", "--probe", "true")

    assert done.returncode == 1, done.stdout + done.stderr
    broken = {promise for promise, result in judged(done).items() if result == "not ok"}
    assert broken == {"route.add", "rule.dns", "rule.box"}


def test_data_plane_that_cannot_be_seen_is_not_judged(box):
    done = check_host("--vpn", 7, "--only", "r", "--probe", "none")

    assert done.returncode == 0, done.stdout + done.stderr
    results = judged(done)
    assert results["route.add"] == results["route.add-namespace"] == "routes cannot be seen"
    assert results["route.add-exists"] == results["rule.dns"] == results["rule.dns-replaces"] == "ok"


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
                     r"  otherwise: dnsmasq reads hosts and resolver file as an unprivileged user", done.stdout), done.stdout


needs_no_sanitizer = pytest.mark.skipif("KAVEL_SANITIZED" in os.environ,
                                        reason="python loads no library with a sanitizer")


@contextlib.contextmanager
def mounted(*words, on):
    """Something else in the place of a file or directory."""
    run("mount", *words, on)
    try:
        yield
    finally:
        run("umount", on)


def broken_of_the_box(promise):
    """What is seen, on a box whose agent has set up nothing."""
    done = check_host("--vpn", 7, "--only", promise, agent=host_that(SET_CPE + INIT))
    assert done.returncode == 1, done.stdout + done.stderr
    assert judged(done) == {promise: "not ok"}
    return re.search("seen: +(.*)", done.stdout)[1]


@needs_no_sanitizer
def test_box_without_directories_is_named(box):
    run("rm", "-rf", CONFIG.parent)
    assert broken_of_the_box("platform.box-directory") == "there is no /etc/kavel/dnsmasq"
    CONFIG.parent.mkdir()
    (CONFIG.parent / "dnsmasq").mkdir()
    assert broken_of_the_box("platform.box-directory") == "there is no /etc/kavel/dnsmasq/dnsmasq.d"


@needs_no_sanitizer
def test_box_without_dnsmasq_is_named(box):
    with mounted("--bind", "/dev/null", on="/usr/sbin/dnsmasq"):
        assert broken_of_the_box("platform.dnsmasq") == "Permission denied"


@needs_no_sanitizer
def test_box_that_takes_no_pid_files_is_named(box):
    with mounted("-t", "tmpfs", "-o", "ro", "nothing", on="/run"):
        assert broken_of_the_box("platform.run-directory") == "a file in /var/run: Read-only file system"


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


MODULE = ROOT / "src/modules/advanceddns"
EXPORTS = (MODULE / "exports.list").read_text().split()
VERSION = int(re.search(r"^#define VQ_HOST_INTERFACE_VERSION (\d+)$", (ROOT / "src/hostapi/vqPlatform.h").read_text(), re.M)[1])


def built_module(tmp_path, exports=EXPORTS, imports=(), version=VERSION, with_note=True):
    """A module of these names, built for a version of the host interface."""
    headers = tmp_path / "hostapi"
    shutil.copytree(ROOT / "src/hostapi", headers)
    header = headers / "vqPlatform.h"
    header.write_text(re.sub(r"(#define VQ_HOST_INTERFACE_VERSION) .*", rf"\1 {version}", header.read_text()))
    calls = "".join(f"void {name}(void);\n" for name in imports)
    entries = "".join(f"void {name}(void) {{ {' '.join(f'{used}();' for used in imports)} }}\n" for name in exports)
    (tmp_path / "entries.c").write_text(calls + entries)
    sources = [tmp_path / "entries.c", *([headers / "interface_version.c"] if with_note else [])]
    run("cc", "-shared", "-fPIC", f"-I{headers}", "-o", tmp_path / "module.so", *sources)
    return tmp_path / "module.so"


def module_results(module):
    done = check_host("--vpn", 7, "--only", "module.", "--module", module, agent=host_that(SET_CPE + INIT))
    return done.returncode, judged(done), done.stdout


@needs_no_sanitizer
def test_module_with_its_names_and_version_is_right(box, tmp_path):
    status, results, output = module_results(built_module(tmp_path, imports=("VQ_CmdExec", "strlen")))

    assert (status, set(results.values())) == (0, {"ok"}), output
    assert set(results) == {"module.version", "module.exports", "module.imports"}


@needs_no_sanitizer
@pytest.mark.parametrize("wrong, broken, seen", [
    ({"exports": EXPORTS + ["VQCtrl_Unknown"]}, "module.exports", "missing: none; not in exports.list: VQCtrl_Unknown"),
    ({"exports": EXPORTS[1:]}, "module.exports", f"missing: {EXPORTS[0]}; not in exports.list: none"),
    ({"imports": ("VQ_CmdExec", "VQ_Unknown")}, "module.imports", "neither in imports.list nor of libc: VQ_Unknown"),
    ({"version": VERSION + 1}, "module.version", f"the module has version {VERSION + 1}, the headers have version {VERSION}"),
    ({"with_note": False}, "module.version", f"the file has no note with a version; the headers have version {VERSION}"),
], ids=["one name too many", "one name missing", "unknown import", "another version", "no version"])
def test_wrong_module_is_named(box, tmp_path, wrong, broken, seen):
    status, results, output = module_results(built_module(tmp_path, **wrong))

    assert status == 1, output
    assert [promise for promise, result in results.items() if result != "ok"] == [broken], output
    assert f"seen:      {seen}\n" in output


@needs_no_sanitizer
def test_file_that_is_no_module_is_named(box, tmp_path):
    (tmp_path / "module.so").write_text("no library")

    status, results, output = module_results(tmp_path / "module.so")

    assert (status, set(results.values())) == (1, {"not ok"}), output
    assert "module.so is no library for this processor" in output


@needs_no_sanitizer
def test_module_that_cannot_be_read_is_not_judged(box, tmp_path):
    status, results, output = module_results(tmp_path / "module.so")

    assert status == 0, output
    assert all(reason.endswith("No such file or directory") for reason in results.values()), output


@pytest.mark.parametrize("options", [(), ("--vpn", "seven"), ("--platform", "router"), ("--nothing",)])
def test_wrong_usage_is_refused(options):
    assert run(BUILD / "vq-hostcheck", *options, check=False).returncode == 2

"""The manual pages name every command, option, exit status, key and field that the programs have, and no other."""

import re
import subprocess

import pytest

import program_help
from program_help import ROOT

MANUAL = ROOT / "packaging/man"
PAGES = sorted(path.name for path in MANUAL.glob("*.scd"))


class Item:
    """An entry of a list in a page: a line with names in bold, and an indented text below."""

    def __init__(self, term):
        self.term = term
        self.names = re.findall(r"\*(.+?)\*", term.replace("\\", ""))
        self.text = ""


def sections(page):
    """The items of a page by its headings."""
    found, items, lists_items = {}, None, True
    for line in (MANUAL / page).read_text().splitlines():
        if line.startswith("```"):
            lists_items = not lists_items
        elif line.startswith("#"):
            items = found.setdefault(line.lstrip("# "), [])
        elif lists_items and line.startswith(("*", "_")):
            items.append(Item(line))
        elif lists_items and line.startswith("\t"):
            items[-1].text += line.strip() + " "
    return {title: [item for item in items if item.text] for title, items in found.items()}


def names_in(items):
    return [name for item in items for name in item.names]


def source(path):
    return (ROOT / path).read_text()


def table(text, name):
    """The entries of a C++ table of members: their names, and whether they are required."""
    body = re.search(rf"constexpr std::array {name} = {{(.*?)\n}};", text, re.S)[1]
    found = re.findall(r'[{(]\s*"(\w+)"(?:,\s*(?:\w+::)*(kRequired|kOptional)|\))', body)
    assert found, name
    return {member: presence == "kRequired" for member, presence in found}


def page_table(items):
    return {name: "required" in item.term for item in items for name in item.names}


@pytest.mark.parametrize("page", PAGES)
def test_page_is_a_manual_page(page, tmp_path):
    name, number = page.split(".scd")[0].rsplit(".", 1)
    assert source(f"packaging/man/{page}").startswith(f"{name}({number})\n")
    built = tmp_path / page.removesuffix(".scd")
    with open(MANUAL / page) as text, open(built, "w") as roff:
        subprocess.run(["scdoc"], stdin=text, stdout=roff, check=True)
    for check in ("mandoc -T lint -W error", "man --warnings --local-file --encoding=UTF-8"):
        done = subprocess.run([*check.split(), built], text=True, capture_output=True)
        assert (done.returncode, done.stderr) == (0, ""), done.stdout
    assert set(sections(page)) >= {"NAME", "DESCRIPTION", "EXAMPLES", "SEE ALSO"}


def test_page_of_the_host_check_has_its_options():
    listed = set(re.findall(r"^  (--[a-z]+)", program_help.help_of("vq-hostcheck"), re.M))
    described = set(names_in(sections("vq-hostcheck.1.scd")["OPTIONS"]))
    assert {name for name in described if name.startswith("--")} == listed
    assert len(listed) > 10


def test_pages_refer_to_pages_that_exist():
    ours = {page.removesuffix(".scd") for page in PAGES}
    other = {"dnsmasq.8", "nft.8", "ip-netns.8", "systemd.service.5", "sd_notify.3", "sd_watchdog_enabled.3",
             "mosquitto.conf.5", "mosquitto.8", "openssl.1"}
    for page in PAGES:
        found = re.findall(r"\*([\w.-]+)\*\((\d)\)", source(f"packaging/man/{page}"))
        assert {f"{name}.{number}" for name, number in found} <= ours | other, page


@pytest.mark.parametrize("program", ["vqctl", "vqfleet"])
def test_every_command_has_its_section_and_synopsis(program):
    page = sections(f"{program}.1.scd")
    commands = [" ".join(words) for words in program_help.all_commands(program)]
    headings = [re.match(rf"{program} ([a-z ]*[a-z])", title)[1] for title in page if title.startswith(f"{program} ")]
    assert headings == commands
    synopsis = re.findall(rf"^\*{program} ([a-z ]+)\*", source(f"packaging/man/{program}.1.scd"), re.M)
    assert synopsis == commands


@pytest.mark.parametrize("words", [(program, *words) for program in ("vqctl", "vqfleet")
                                   for words in program_help.all_commands(program)], ids=" ".join)
def test_every_option_of_a_command_is_in_its_section_and_synopsis(words):
    name, command = f"{words[0]}.1.scd", " ".join(words)
    page = sections(name)
    (heading,) = [title for title in page if re.match(rf"{command}( [^a-z]|$)", title)]
    (synopsis,) = re.findall(rf"^\*{command}\*(.*)$", source(f"packaging/man/{name}"), re.M)
    options = program_help.options_of(*words)
    assert sorted(names_in(page[heading])) == sorted(name for names in options for name in names)
    for names in options:
        assert re.search(rf"[ \[]{names[0]}\b", heading) and f"*{names[0]}*" in synopsis


@pytest.mark.parametrize("program", ["vqctl", "vqfleet"])
def test_every_option_of_the_program_itself_is_listed(program):
    expected = [name for names in program_help.options(program_help.help_of(program)) for name in names]
    assert names_in(sections(f"{program}.1.scd")["OPTIONS"]) == expected


def test_the_socket_of_vqctl_is_right():
    socket = re.search(r"--socket PATH=(\S+)", program_help.help_of("vqctl"))[1]
    assert socket in source("packaging/man/vqctl.1.scd")


@pytest.mark.parametrize("program", ["vqctl", "vqfleet"])
def test_every_exit_status_is_listed_with_its_meaning(program):
    lines = program_help.section(program_help.help_of(program), "Exit codes")
    expected = [tuple(line.split(maxsplit=1)) for line in lines]
    items = sections(f"{program}.1.scd")["EXIT STATUS"]
    assert names_in(items) == [number for number, meaning in expected]
    for item, (number, meaning) in zip(items, expected):
        assert item.text.replace("*", "").lower().startswith(meaning.lower()), number


def test_every_member_and_column_of_the_status_is_listed():
    text = source("src/ctl/status_fields.cpp")
    page = sections("vqctl.1.scd")
    fields = re.findall(r'(Default\(\s*)?Field<[^;"]*>\(\s*"(\w+)",\s*"([A-Z_]+)"', text)
    columns = [title for is_default, name, title in fields if is_default]
    assert len(fields) > 20 and len(columns) > 5
    assert names_in(page["STATUS"]) == columns
    members = names_in(page["STATUS AS JSON"])
    assert [name for name in members if "." not in name] == [name for is_default, name, title in fields]
    listed = subprocess.run([program_help.BUILD / "vqctl", "status", "--columns", "help"], check=True, text=True,
                            capture_output=True).stdout.split()
    assert listed == [name for is_default, name, title in fields]


def test_every_standing_of_the_fleet_is_explained():
    words = re.search(r"kStandingNames = {(.*?)};", source("src/fleet/fleet_state.cpp"), re.S)[1]
    standings = re.findall(r'"(\w+)"', words)
    assert len(standings) > 5
    assert names_in(sections("vqfleet.1.scd")["HOW A VPN STANDS"]) == standings


def test_every_state_is_explained():
    words = re.search(r"kStateStyles = {{(.*?)}};", source("src/ctl/status_fields.cpp"), re.S)[1]
    states = re.findall(r'{"(\w+)"', words)
    assert len(states) > 4
    (state,) = [item for item in sections("vqctl.1.scd")["STATUS"] if item.names == ["STATE"]]
    assert sorted(re.findall(r'"(\w+)"', state.text)) == sorted(states)


@pytest.mark.parametrize("program, folder", [("vqagent", "agent"), ("vqlink", "link")])
def test_every_option_and_exit_status_of_a_service_is_listed(program, folder):
    page = sections(f"{program}.8.scd")
    expected = re.findall(r"^  (--[a-z-]+)", program_help.help_of(program), re.M)
    assert [name for name in names_in(page["OPTIONS"]) if name != "-h"] == expected
    codes = {int(code) for code in re.findall(r"int kExit\w+ = (\d+);", source(f"src/{folder}/main.cpp"))}
    assert {int(name) for name in names_in(page["EXIT STATUS"])} == codes | {0}


@pytest.mark.parametrize("program, folder", [("vqagent", "agent"), ("vqlink", "link")])
def test_every_signal_of_a_service_is_listed(program, folder):
    handled = re.findall(r"(?:AddSignal\(|signal\()(SIG[A-Z]+), (?!SIG_DFL)", source(f"src/{folder}/main.cpp"))
    assert len(handled) > 3
    assert sorted(names_in(sections(f"{program}.8.scd")["SIGNALS"])) == sorted(handled)


@pytest.mark.parametrize("heading, file, name", [("KEYS", "link/link_config.cpp", "kLinkMembers"),
                                                 ("KEYS OF BROKER", "broker/endpoint_config.cpp", "kEndpointMembers")])
def test_every_key_of_the_configuration_of_the_link_is_listed(heading, file, name):
    page = page_table(sections("link.json.5.scd")[heading])
    assert page == table(source(f"src/{file}"), name)


def test_every_default_of_the_configuration_of_the_link_is_right():
    page = sections("link.json.5.scd")
    texts = {key: item.text for heading in ("KEYS", "KEYS OF BROKER") for item in page[heading] for key in item.names}
    port = re.search(r"uint16_t port = (\d+);", source("src/broker/session.h"))[1]
    socket = re.search(r'kDefaultSocket = ("\S+")', source("src/control/frame.h"))[1]
    for key, value in {"port": port, "agent": socket, "log": '"notice"'}.items():
        assert f"Default: {value}." in texts[key], key
    assert re.search(r"agent = control::kDefaultSocket;\s+LogLevel log = LogLevel::kNotice;",
                     source("src/link/link_config.h"))


@pytest.mark.parametrize("heading, file", [("REPORT", "report"), ("PRESENCE", "presence")])
def test_every_member_that_the_link_publishes_is_listed(heading, file):
    names = names_in(sections("vqlink.8.scd")[heading])
    assert names
    assert sorted(names) == sorted(members_of(source(f"src/broker/{file}.cpp")))


def members_of(text):
    """The names of the members in a table of a parser."""
    return re.findall(r'^    {"(\w+)", k?(?:\w+::)*k(?:Required|Optional)', text, re.M)


@pytest.mark.parametrize("heading, name", [
    ("KEYS", "kConfigMembers"), ("KEYS OF AN ITEM OF USERS", "kUserMembers"), ("KEYS OF AN ITEM OF VPNS", "kVpnMembers"),
    ("KEYS OF AN ITEM OF WAN", "kWanMembers"), ("KEYS OF WATCH", "kWatchMembers")])
def test_every_key_of_the_configuration_is_listed(heading, name):
    assert page_table(sections("agent.json.5.scd")[heading]) == table(source("src/agent/base/config.cpp"), name)


def test_every_table_of_keys_has_its_section():
    tables = re.findall(r"constexpr std::array (k\w+Members) =", source("src/agent/base/config.cpp"))
    assert len(tables) == len([title for title in sections("agent.json.5.scd") if title.startswith("KEYS")])


@pytest.mark.parametrize("heading, name", [
    ("KEYS", "Config"), ("KEYS OF AN ITEM OF WAN", "Wan"), ("KEYS OF WATCH", "Watch")])
def test_every_default_of_the_configuration_is_right(heading, name):
    body = re.search(rf"^struct {name} {{(.*?)^}};", source("src/agent/base/config.h"), re.M | re.S)[1]
    socket = re.search(r'kDefaultSocket = ("\S+")', source("src/control/frame.h"))[1]
    defaults = dict(re.findall(r"^ +[\w:]+ (\w+) = ([^;]+);", body, re.M))
    defaults.pop("platform", None)
    assert defaults
    texts = {key: item.text for item in sections("agent.json.5.scd")[heading] for key in item.names}
    for key, value in defaults.items():
        value = {"control::kDefaultSocket": socket, "LogLevel::kNotice": '"notice"'}.get(value, value)
        assert f"Default: {value}." in texts[key], key


@pytest.mark.parametrize("heading, name", [
    ("CPE MESSAGE", "kCpeFields"), ("POP MESSAGE", "kPopFields"),
    ("Items of dnshosts", "kHostFields"), ("Items of dnsmxhost", "kMxHostFields"),
    ("Items of dnsservers", "kServerFields"), ("Items of dnsproxies", "kProxyFields")])
def test_every_field_of_a_message_is_listed(heading, name):
    assert page_table(sections("messages.5.scd")[heading]) == table(source("src/ctl/json_message.cpp"), name)


def test_the_fields_are_those_of_the_message_schema():
    text = source("src/hostapi/messages/advanced_dns.proto")
    schema = re.findall(r"^  (?:required|optional|repeated) \w+ (\w+) = ", text, re.M)
    page = sections("messages.5.scd")
    lists = [items for title, items in page.items() if title.startswith(("CPE", "POP", "Items"))]
    assert sorted(name for items in lists for name in names_in(items)) == sorted(schema)


def test_every_result_of_apply_and_check_is_listed():
    result = re.compile(r'"(?:: )?(applied(?:, [A-Z ]+)?|would be refused|would apply|refused)[ :"]')
    printed = result.findall(source("src/ctl/apply_output.cpp") + source("src/ctl/commands.cpp"))
    items = sections("vqctl.1.scd")["RESULTS OF APPLY AND CHECK"]
    assert sorted(item.names[0].rstrip(":") for item in items) == sorted(set(printed))


def variables_read(folder):
    texts = [path.read_text() for path in (ROOT / folder).rglob("*.cpp")]
    return {name for text in texts for name in re.findall(r'getenv\("(\w+)"\)', text)}


def test_every_environment_variable_is_listed():
    assert set(names_in(sections("vqctl.1.scd")["ENVIRONMENT"])) == variables_read("src/ctl")
    # libsystemd reads the variables of notifications and of the watchdog.
    from_manager = {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}
    listed = set(names_in(sections("vqagent.8.scd")["ENVIRONMENT"]))
    assert listed == variables_read("src/agent") | variables_read("src/common") | from_manager
    assert set(names_in(sections("vqlink.8.scd")["ENVIRONMENT"])) == listed
    withheld = re.search(r"kOwnVariables{(.*?)}", source("src/agent/base/spawn.cpp"), re.S)[1]
    assert listed <= set(re.findall(r'"(\w+)="', withheld))


@pytest.mark.parametrize("heading, field, limit", [
    ("CPE MESSAGE", "dnshosts", "VQ_DNS_HOST_MAX"), ("CPE MESSAGE", "dnsmxhost", "kMxHostMax"),
    ("CPE MESSAGE", "dnsservers", "VQ_DNS_SERVER_MAX"), ("CPE MESSAGE", "dnsproxies", "kProxyItemMax"),
    ("Items of dnsproxies", "domains", "kProxyDomainMax"), ("Items of dnsproxies", "serverips", "kProxyServerMax")])
def test_the_limits_of_a_message_are_right(heading, field, limit):
    text = source("src/hostapi/vqDnsmasqConf.h") + source("src/modules/advanceddns/vqCtrlAdvancedDnsPbToConf.cpp")
    (number,) = re.findall(rf"(?:#define {limit}|size_t {limit} =) (\d+)\b", text)
    (item,) = [item for item in sections("messages.5.scd")[heading] if item.names == [field]]
    assert f"up to {number}" in item.term


def test_the_limits_of_vqctl_are_right():
    text = "".join(source(f"src/{path}") for path in ("ctl/commands.h", "ctl/files.h", "ctl/session.h", "control/frame.h"))
    page = source("packaging/man/vqctl.1.scd").replace("\n", " ")
    size = r" = std::size_t{(\d+)} \* 1024 \* 1024;"
    file, frame = (re.search(name + size, text)[1] for name in ("kFileMax", "kFrameMax"))
    revision = re.search(r"kRevisionMax = (\d+);", text)[1]
    timeout, silence = (re.search(name + r"{(\d+)};", text)[1] for name in ("kTimeout", "kSilence"))
    longest = re.search(r"kTimeoutMax = (\d+);", source("src/ctl/main.cpp"))[1]
    assert f"a file of {file} MiB at most" in page and f"A request takes {frame} MiB at most" in page
    assert f"1 to {revision} bytes" in page and f"within {timeout} s." in page
    assert f"1 to {longest}. Default: {timeout}." in page and f"for {silence} s" in page

// How the module finds an instance: the input determines the pid file, the table of TCP sockets and the command lines
// of all processes. The module may only kill the process of the pid file and processes that run the instance.
#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz.h"
#include "host.h"
#include "vqCtrlAdvancedDns.h"

namespace {

constexpr unsigned kDnsPort = 53;

struct Scene {
    uint32_t VpnId = 0;
    bool IsStop = false;
    std::optional<std::string> PidText;
    std::optional<std::string> TcpTable;
    std::map<pid_t, std::string> Processes;
};

Scene ReadScene(fuzz::Input &From)
{
    constexpr std::array<uint32_t, 8> VpnIds{0, 1, 7, 10, 1234567, 12345678, 2147483648, 4294967295};
    constexpr size_t LongestPidText = 64;
    constexpr size_t LongestTable = 1024;
    constexpr size_t LongestCommand = 700;
    constexpr pid_t FirstPid = 100;
    Scene Out;
    const uint8_t Flags = From.Byte();
    Out.VpnId = VpnIds[Flags % VpnIds.size()];
    Out.IsStop = (Flags & 8U) != 0;
    if ((Flags & 16U) == 0) {
        Out.PidText = From.Text(LongestPidText);
    }
    if ((Flags & 32U) == 0) {
        Out.TcpTable = From.Text(LongestTable);
    }
    for (pid_t Pid = FirstPid; !From.IsEmpty(); ++Pid) {
        Out.Processes[Pid] = From.Text(LongestCommand);
    }
    return Out;
}

void Prepare(fakehost::Host &Host, const Scene &Is)
{
    Host.Calls.RecordNothing();
    Host.Calls.Record(fakehost::EntryKind::World, true);
    Host.Log.KeepLines(false);
    if (Is.PidText.has_value()) {
        Host.Proc.PutPidFile(Is.VpnId, *Is.PidText);
    }
    if (Is.TcpTable.has_value()) {
        Host.Netns.PutTcpTable(Is.VpnId, *Is.TcpTable);
    }
    for (const auto &[Pid, Command] : Is.Processes) {
        Host.Proc.Add(Pid, Command);
    }
}

// The pid in the pid file; nothing if there is no file, or if it is empty.
std::optional<pid_t> PidOf(const Scene &Is)
{
    constexpr size_t ReadAtMost = 32;
    if (!Is.PidText.has_value() || Is.PidText->empty()) {
        return std::nullopt;
    }
    return static_cast<pid_t>(std::strtol(Is.PidText->substr(0, ReadAtMost).c_str(), nullptr, 10));
}

bool RunsInstance(std::string Command, uint32_t VpnId)
{
    constexpr size_t ReadAtMost = 512;
    constexpr size_t LongestTag = 19;
    const std::string Tag = "kvl_dns_vpn_" + std::to_string(VpnId);
    Command.resize(std::min(Command.size(), ReadAtMost));
    const auto Holds = [&](std::string_view Word) { return Command.find(Word) != std::string::npos; };
    return Tag.size() <= LongestTag && Holds("dnsmasq") && Holds("--dns-forward") && Holds(Tag);
}

bool IsHex(std::string_view Text)
{
    return !Text.empty() && std::ranges::all_of(Text, [](unsigned char Each) { return std::isxdigit(Each) != 0; });
}

// The port of a line in the kernel's format: blanks, a number and a colon, a blank, address and port.
std::optional<unsigned> PortOf(std::string_view Line)
{
    constexpr size_t LengthOfPort = 4;
    constexpr size_t LengthOfAddress = 8;
    Line.remove_prefix(std::min(Line.find_first_not_of(' '), Line.size()));
    const size_t Slot = Line.find(": ");
    const size_t Address = Slot + 2;
    if (Slot == std::string_view::npos || Slot == 0 || Line.find_first_of(" \t\v\f\r") != Slot + 1 ||
        Line.size() < Address + LengthOfAddress + 1 + LengthOfPort + 1) {
        return std::nullopt;
    }
    const std::string_view Port = Line.substr(Address + LengthOfAddress + 1, LengthOfPort);
    const bool IsGood = IsHex(Line.substr(Address, LengthOfAddress)) && Line[Address + LengthOfAddress] == ':' &&
                        IsHex(Port) && Line[Address + LengthOfAddress + 1 + LengthOfPort] == ' ';
    return IsGood ? std::optional(static_cast<unsigned>(std::stoul(std::string(Port), nullptr, 16))) : std::nullopt;
}

// Whether the port is in use; nothing if the table is not in the kernel's format: then the result depends on scanf.
std::optional<bool> IsDnsPortTaken(const Scene &Is)
{
    constexpr size_t ReadAtMost = 99; // the rest of a longer line is read as another line
    if (!Is.TcpTable.has_value() || Is.TcpTable->find('\0') != std::string::npos) {
        return Is.TcpTable.has_value() ? std::nullopt : std::optional(false);
    }
    bool IsFirst = true;
    for (const std::string &Line : fuzz::Lines(*Is.TcpTable)) {
        std::string_view Left = Line;
        if (!IsFirst || Left.size() > ReadAtMost) {
            const std::optional<unsigned> Port = IsFirst ? std::nullopt : PortOf(Left.substr(0, ReadAtMost));
            Left.remove_prefix(std::min(Left.size(), ReadAtMost));
            if (!Port.has_value() || Left.find(':') != std::string_view::npos) {
                return std::nullopt;
            }
            if (*Port == kDnsPort) {
                return true;
            }
        }
        IsFirst = false;
    }
    return false;
}

std::vector<std::string> Kill(pid_t Pid)
{
    return {"VQ_KillPid(" + std::to_string(Pid) + ")"};
}

// The processes that run the instance, apart from the one in the pid file.
std::vector<std::string> KillsOfOthers(const Scene &Is, pid_t Ended)
{
    std::vector<std::string> Out;
    for (const auto &[Pid, Command] : Is.Processes) {
        if (Pid != Ended && RunsInstance(Command, Is.VpnId)) {
            Out.push_back(Kill(Pid).front());
        }
    }
    return Out;
}

void CheckStop(fakehost::Host &Host, const Scene &Is)
{
    const std::optional<pid_t> Pid = PidOf(Is);
    // The fake host refuses to kill process groups.
    fuzz::RequireSame("the result of the stop", VQCtrl_DnsmasqStop(Is.VpnId),
                      Pid.has_value() && *Pid <= 0 ? -EINVAL : 0);
    const std::vector<std::string> Kills = Host.Calls.Named("VQ_KillPid");
    if (!Pid.has_value() || *Pid <= 0) {
        fuzz::RequireSame("the killed processes", Kills, Pid.has_value() ? Kill(*Pid) : std::vector<std::string>());
        return;
    }
    std::vector<std::string> WithOthers = Kill(*Pid);
    const std::vector<std::string> Others = KillsOfOthers(Is, *Pid);
    WithOthers.insert(WithOthers.end(), Others.begin(), Others.end());
    const std::optional<bool> Taken = IsDnsPortTaken(Is);
    const bool MayEndOthers = Taken.value_or(Kills.size() > 1);
    fuzz::RequireSame("the killed processes", Kills, MayEndOthers ? WithOthers : Kill(*Pid));
    fuzz::Require(!Host.Files.Exists(fakehost::Processes::PidFile(Is.VpnId)), "the pid file still exists");
}

void CheckReload(fakehost::Host &Host, const Scene &Is)
{
    const std::optional<pid_t> Pid = PidOf(Is);
    const bool IsGone = Pid.has_value() && *Pid > 0 && !Is.Processes.contains(*Pid);
    fuzz::RequireSame("the result of the reload", VQCtrl_DnsmasqReload(Is.VpnId), IsGone ? -ESRCH : 0);
    std::vector<std::string> Signals;
    if (Pid.has_value()) {
        Signals.push_back("kill(" + std::to_string(*Pid) + ", " + std::to_string(SIGHUP) + ")");
    }
    fuzz::RequireSame("the signals", Host.Calls.Named("kill"), Signals);
    fuzz::RequireSame("the killed processes", Host.Calls.Named("VQ_KillPid"), {});
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size)
{
    fuzz::Input From({Data, Size});
    const Scene Is = ReadScene(From);
    fakehost::Host Host;
    Prepare(Host, Is);
    if (Is.IsStop) {
        CheckStop(Host, Is);
    } else {
        CheckReload(Host, Is);
    }
    fuzz::RequireNone("violations of the host's rules", Host.Verify());
    return 0;
}

// dnsmasq instances: their directories, discovery, start, stop and reload. This file keeps no state between calls: an
// instance is found again by its pid file and by the tag in its command line.
#include "vqCtrlAdvancedDns.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include "vqCtrlAdvancedDnsGuard.h"
#include "vqCtrlAdvancedDnsLog.h"
#include "vqCtrlAdvancedDnsSizes.h"
#include "vqErrno.h"
#include "vqFile.h"
#include "vqNetns.h"
#include "vqProcess.h"
#include "vqSafeStr.h"

// ---- Directory ----

static VQ_ERR_T _VQCtrl_InstanceRoot(const char *Function, uint32_t VpnId, char (&Root)[kPathSize])
{
    if (VQ_SNPrintf(Root, sizeof(Root), "/etc/kavel/dnsmasq/vpn_%u", VpnId) >= sizeof(Root)) {
        VQ_CTRL_LOG_ERROR_AS(Function, "Dnsmasq vpn conf root path is overflow\n");
        return VQ_ERR_OVERFLOW;
    }
    return VQ_ERR_OK;
}

static VQ_ERR_T _VQCtrl_MakeDir(const char *Function, const char *Path)
{
    if (access(Path, F_OK) == 0 || mkdir(Path, 0777) == 0) {
        return VQ_ERR_OK;
    }
    const VQ_ERR_T Result = -errno;
    VQ_CTRL_LOG_ERROR_AS(Function, "Create DIR (%s) failed(%d:%s)!\n", Path, VQ_CTRL_LOG_REASON(Result));
    return Result;
}

static VQ_ERR_T _VQCtrl_MakeFile(const char *Function, const char *Path)
{
    const VQ_ERR_T Result = VQ_CreateFilePath(Path);
    if (Result < 0) {
        VQ_CTRL_LOG_ERROR_AS(Function, "Create file %s failed(%d:%s)\n", Path, VQ_CTRL_LOG_REASON(Result));
    }
    return Result;
}

static VQ_ERR_T _VQCtrl_CreateDnsmasqConf(char *ConfRoot, uint32_t VpnId)
{
    char Path[kPathSize] = {};
    if (VQ_SNPrintf(Path, sizeof(Path), "%s/dnsmasq.conf", ConfRoot) >= sizeof(Path)) {
        VQ_CTRL_LOG_ERROR("Dnsmasq vpn conf root path is overflow\n");
        return VQ_ERR_OVERFLOW;
    }
    char Content[kDnsmasqConfSize] = {};
    const size_t Length = VQ_SNPrintf(Content, sizeof(Content),
                                      "resolv-file=/etc/kavel/dnsmasq/vpn_%u/resolv.conf\n"
                                      "addn-hosts=/etc/kavel/dnsmasq/vpn_%u/hosts\n"
                                      "conf-dir=/etc/kavel/dnsmasq/vpn_%u/dnsmasq.d/,*.conf\n"
                                      "cache-size=1000\n"
                                      "domain-needed\n",
                                      VpnId, VpnId, VpnId);
    if (Length >= sizeof(Content)) {
        VQ_CTRL_LOG_ERROR("Dnsmasq conf content is overflow\n");
        return VQ_ERR_OVERFLOW;
    }
    const VQ_ERR_T Result = VQ_WriteWithFilePath(Path, Content, strlen(Content));
    if (Result < 0) {
        VQ_CTRL_LOG_ERROR("Write dnsmasq.conf for vpn %u failed(%d:%s)\n", VpnId, VQ_CTRL_LOG_REASON(Result));
    }
    return Result;
}

static VQ_ERR_T _VQCtrl_MakeSkeletonDir(const char *Function, const char *Root)
{
    char Path[kPathSize] = {};
    if (VQ_SNPrintf(Path, sizeof(Path), "%s/dnsmasq.d", Root) >= sizeof(Path)) {
        VQ_CTRL_LOG_ERROR_AS(Function, "Dnsmasq vpn conf dir path is overflow\n");
        return VQ_ERR_OVERFLOW;
    }
    return _VQCtrl_MakeDir(Function, Path);
}

static VQ_ERR_T _VQCtrl_MakeSkeletonFiles(const char *Function, const char *Root)
{
    char Path[kPathSize] = {};
    if (VQ_SNPrintf(Path, sizeof(Path), "%s/hosts", Root) >= sizeof(Path)) {
        VQ_CTRL_LOG_ERROR_AS(Function, "Dnsmasq vpn conf hosts path is overflow\n");
        return VQ_ERR_OVERFLOW;
    }
    const VQ_ERR_T Result = _VQCtrl_MakeFile(Function, Path);
    if (Result < 0) {
        return Result;
    }
    if (VQ_SNPrintf(Path, sizeof(Path), "%s/resolv.conf", Root) >= sizeof(Path)) {
        VQ_CTRL_LOG_ERROR_AS(Function, "Dnsmasq vpn conf resolv path is overflow\n");
        return VQ_ERR_OVERFLOW;
    }
    return _VQCtrl_MakeFile(Function, Path);
}

VQ_ERR_T VQCtrl_DnsmasqConfInitByVpnId(uint32_t VpnId)
{
    char Root[kPathSize] = {};
    VQ_ERR_T Result = _VQCtrl_InstanceRoot(__func__, VpnId, Root);
    if (Result >= 0) {
        Result = _VQCtrl_MakeDir(__func__, Root);
    }
    if (Result >= 0) {
        Result = _VQCtrl_MakeSkeletonDir(__func__, Root);
    }
    if (Result >= 0) {
        Result = _VQCtrl_MakeSkeletonFiles(__func__, Root);
    }
    if (Result < 0) {
        return Result;
    }
    Result = _VQCtrl_CreateDnsmasqConf(Root, VpnId);
    if (Result < 0) {
        VQ_CTRL_LOG_ERROR("Create dnsmasq.conf for vpn %u failed(%d:%s)\n", VpnId, VQ_CTRL_LOG_REASON(Result));
    }
    return Result;
}

VQ_ERR_T VQCtrl_DnsmasqConfRelaseByVpnId(uint32_t VpnId)
{
    char Root[kPathSize] = {};
    VQ_ERR_T Result = _VQCtrl_InstanceRoot(__func__, VpnId, Root);
    if (Result < 0) {
        return Result;
    }
    Result = VQ_RemoveDirRecursion(Root);
    if (Result < 0) {
        VQ_CTRL_LOG_ERROR("Remove %s failed(%d:%s)\n", Root, VQ_CTRL_LOG_REASON(Result));
    }
    return Result;
}

void VQCtrl_StopOldVersionDnsmasqService(void)
{
    char Command[] = "systemctl stop kvldns";
    if (VQ_CmdExec(Command) < 0) {
        VQ_CTRL_LOG_WARNING("Stop old version dnsmasq service failed\n");
    }
}

// ---- Discovery ----

static VQ_ERR_T _VQCtrl_PidFilePath(const char *Function, uint32_t VpnId, char (&Path)[kPathSize])
{
    if (VQ_SNPrintf(Path, sizeof(Path), "/var/run/kvl_dns_vpn_%u.pid", VpnId) >= sizeof(Path)) {
        VQ_CTRL_LOG_ERROR_AS(Function, "pid file name is overflow\n");
        return VQ_ERR_OVERFLOW;
    }
    return VQ_ERR_OK;
}

// Gives what atoi gives, without undefined behaviour for numbers that do not fit.
static pid_t _VQCtrl_TextToPid(const char *Text)
{
    return static_cast<pid_t>(strtol(Text, nullptr, 10));
}

VQ_ERR_T VQCtrl_GetDnsServicePid(uint32_t VpnId, pid_t *Pid)
{
    char Path[kPathSize] = {};
    const VQ_ERR_T Result = _VQCtrl_PidFilePath(__func__, VpnId, Path);
    if (Result < 0) {
        return Result;
    }
    const advanceddns::ReadFile File(fopen(Path, "re"));
    if (File == nullptr) {
        const VQ_ERR_T OpenResult = -errno;
        VQ_CTRL_LOG_NOTICE("Open pid file %s failed(%d:%s)\n", Path, VQ_CTRL_LOG_REASON(OpenResult));
        return OpenResult;
    }
    char Text[kPidTextSize + 1] = {};
    if (fread(Text, 1, kPidTextSize, File.Get()) == 0) {
        return VQ_ERR_INVALID;
    }
    *Pid = _VQCtrl_TextToPid(Text);
    return VQ_ERR_OK;
}

// Every IPv4 TCP socket with the local port counts, listening or not. A line without a port, such as the rest of a line
// that is longer than the buffer, compares the last port again.
static BOOL _VQCtrl_IsTcpPortListed(const char *Function, FILE *Table, uint32_t Port, uint32_t VpnId)
{
    char Line[kTcpLineSize] = {};
    unsigned LinePort = 0;
    bool IsHeader = true;
    while (fgets(Line, sizeof(Line), Table) != nullptr) {
        if (IsHeader) {
            IsHeader = false;
            continue;
        }
        // NOLINTNEXTLINE(cert-err34-c): a line that cannot be parsed leaves the last port.
        static_cast<void>(sscanf(Line, "%*s%*x:%x", &LinePort));
        if (LinePort == Port) {
            VQ_CTRL_LOG_NOTICE_AS(Function, "The port %u is occupied, VpnId = %u\n", Port, VpnId);
            return TRUE;
        }
    }
    return FALSE;
}

// Looks in the namespace of the VPN, for VPN 0 in the current one. /proc/net shows the namespace of the main thread, so
// this must run on the main thread. FALSE also if the namespace cannot be entered or the table cannot be opened.
static BOOL _VQCtrl_IsTcpPortOccupied(uint32_t Port, uint32_t VpnId)
{
    // Declared before the guard, so that the thread has switched back when the file is closed. Hosts see that order.
    advanceddns::ReadFile Table;
    const advanceddns::NamespaceSwitch Vpn(__func__, VpnId);
    if (!Vpn.IsInNamespace()) {
        return FALSE;
    }
    Table.Reset(fopen("/proc/net/tcp", "re"));
    return Table != nullptr ? _VQCtrl_IsTcpPortListed(__func__, Table.Get(), Port, VpnId) : FALSE;
}

// These are substring tests: the tag of VPN 1 is also found in the command line of VPN 10. That is known and kept.
static BOOL _VQCtrl_IsDnsServiceExistInCmdline(char *Filepath, uint32_t VpnId)
{
    char Tag[kProcessTagSize] = {};
    if (VQ_SNPrintf(Tag, sizeof(Tag), "kvl_dns_vpn_%u", VpnId) >= sizeof(Tag)) {
        VQ_CTRL_LOG_ERROR("Dns vpn name content is overflow\n");
        return FALSE;
    }
    const advanceddns::ReadFile File(fopen(Filepath, "re"));
    if (File == nullptr) {
        return FALSE;
    }
    char Cmdline[kCmdlineSize + 1] = {};
    const size_t Length = fread(Cmdline, 1, kCmdlineSize, File.Get());
    for (size_t Index = 0; Index < Length; ++Index) {
        if (Cmdline[Index] == '\0') {
            Cmdline[Index] = ' ';
        }
    }
    return strstr(Cmdline, "dnsmasq") != nullptr && strstr(Cmdline, "--dns-forward") != nullptr &&
                   strstr(Cmdline, Tag) != nullptr
               ? TRUE
               : FALSE;
}

// A process that has exited in the meantime counts as ended.
static VQ_ERR_T _VQCtrl_KillDnsProcess(const char *Function, pid_t Pid)
{
    const VQ_ERR_T Result = VQ_KillPid(Pid);
    if (Result < 0 && Result != VQ_ERR_NO_PROCESS) {
        VQ_CTRL_LOG_ERROR_AS(Function, "Kill pid %d failed(%d:%s)\n", Pid, VQ_CTRL_LOG_REASON(Result));
        return Result;
    }
    return VQ_ERR_OK;
}

static VQ_ERR_T _VQCtrl_KillIfDnsService(const char *Function, const char *EntryName, uint32_t VpnId)
{
    const pid_t Pid = _VQCtrl_TextToPid(EntryName);
    char Path[kProcPathSize] = {};
    if (VQ_SNPrintf(Path, sizeof(Path), "/proc/%d/cmdline", Pid) >= sizeof(Path)) {
        VQ_CTRL_LOG_ERROR_AS(Function, "filename %s is overflow\n", Path);
        return VQ_ERR_OK;
    }
    if (_VQCtrl_IsDnsServiceExistInCmdline(Path, VpnId) == FALSE) {
        return VQ_ERR_OK;
    }
    return _VQCtrl_KillDnsProcess(Function, Pid);
}

static VQ_ERR_T _VQCtrl_KillDnsServiceChildPid(uint32_t VpnId)
{
    const advanceddns::Directory Proc(opendir("/proc"));
    if (Proc == nullptr) {
        const VQ_ERR_T Result = -errno;
        VQ_CTRL_LOG_ERROR("Open dir /proc failed(%d:%s)\n", VQ_CTRL_LOG_REASON(Result));
        return Result;
    }
    for (const dirent *Entry = readdir(Proc.Get()); Entry != nullptr; Entry = readdir(Proc.Get())) {
        if (strcmp(Entry->d_name, ".") == 0 || strcmp(Entry->d_name, "..") == 0) {
            continue;
        }
        const VQ_ERR_T Result = _VQCtrl_KillIfDnsService(__func__, Entry->d_name, VpnId);
        if (Result < 0) {
            return Result;
        }
    }
    return VQ_ERR_OK;
}

static VQ_ERR_T _VQCtrl_RemoveDnsServicePidFile(uint32_t VpnId)
{
    char Path[kPathSize] = {};
    const VQ_ERR_T Result = _VQCtrl_PidFilePath(__func__, VpnId, Path);
    if (Result < 0) {
        return Result;
    }
    // The file may be gone already: dnsmasq removes it when it is told to exit.
    static_cast<void>(remove(Path));
    return VQ_ERR_OK;
}

// ---- Start, stop, reload ----

// The number of queries that an instance forwards concurrently.
static constexpr uint32_t kDnsForwardMax = 1000;
static constexpr uint32_t kDnsPort = 53;

// Writes the launch command into the `Size` bytes at `Target` and returns the length that it needs.
static size_t _VQCtrl_FormatStartCommand(uint32_t VpnId, char *Target, size_t Size)
{
    if (VpnId != 0) {
        return VQ_SNPrintf(Target, Size,
                           "/usr/sbin/dnsmasq -C /etc/kavel/dnsmasq/vpn_%u/dnsmasq.conf --dns-forward-max=%u "
                           "--no-hosts --pid-file=/var/run/kvl_dns_vpn_%u.pid -k &",
                           VpnId, kDnsForwardMax, VpnId);
    }
    return VQ_SNPrintf(Target, Size,
                       "/usr/sbin/dnsmasq -C /etc/kavel/dnsmasq/dnsmasq.conf --dns-forward-max=%u "
                       "--no-hosts --pid-file=/var/run/kvl_dns_vpn_%u.pid -k &",
                       kDnsForwardMax, VpnId);
}

VQ_ERR_T VQCtrl_DnsmasqStart(uint32_t VpnId)
{
    char Command[kCommandSize] = {};
    size_t Length = 0;
    if (VpnId != 0) {
        const VQ_ERR_T PrefixLength = VQ_RtcGetNetNsExecCmdPrefix(VpnId, Command, sizeof(Command));
        if (PrefixLength < 0) {
            VQ_CTRL_LOG_ERROR("Get netns cmd prefix failed(%d:%s)\n", VQ_CTRL_LOG_REASON(PrefixLength));
            return PrefixLength;
        }
        Length = static_cast<size_t>(PrefixLength);
    }
    // A host may report a prefix that is longer than the buffer. Then there is no room for the command.
    if (Length < sizeof(Command)) {
        Length += _VQCtrl_FormatStartCommand(VpnId, Command + Length, sizeof(Command) - Length);
    }
    if (Length >= sizeof(Command)) {
        VQ_CTRL_LOG_ERROR("Start dns service cmd is overflow\n");
        return VQ_ERR_OVERFLOW;
    }
    const VQ_ERR_T Result = VQ_CmdExec(Command);
    if (Result < 0) {
        VQ_CTRL_LOG_ERROR("cmd:%s exec failed\n", Command);
        return VQ_ERR_INVALID;
    }
    return Result;
}

// If port 53 is still taken after the instance has ended, kills the processes with the tag of the VPN. False ends the
// stop with `*Result`. That is the negated errno of this moment, which may be 0, and not the result of the search. That
// is known and kept.
static bool _VQCtrl_FreeDnsPort(const char *Function, uint32_t VpnId, VQ_ERR_T *Result)
{
    if (_VQCtrl_IsTcpPortOccupied(kDnsPort, VpnId) == FALSE) {
        return true;
    }
    VQ_CTRL_LOG_NOTICE_AS(Function, "Port 53 is occupied\n");
    if (_VQCtrl_KillDnsServiceChildPid(VpnId) < 0) {
        *Result = -errno;
        VQ_CTRL_LOG_ERROR_AS(Function, "Kill dns childpid failed(%d:%s)\n", VQ_CTRL_LOG_REASON(*Result));
        return false;
    }
    VQ_CTRL_LOG_NOTICE_AS(Function, "Kill dns child pid success\n");
    return true;
}

VQ_ERR_T VQCtrl_DnsmasqStop(uint32_t VpnId)
{
    pid_t Pid = 0;
    if (VQCtrl_GetDnsServicePid(VpnId, &Pid) < 0) {
        VQ_CTRL_LOG_NOTICE("Dns service is not exist\n");
        return VQ_ERR_OK;
    }
    VQ_CTRL_LOG_NOTICE("Pid is %d\n", Pid);
    VQ_ERR_T Result = _VQCtrl_KillDnsProcess(__func__, Pid);
    if (Result < 0) {
        return Result;
    }
    if (!_VQCtrl_FreeDnsPort(__func__, VpnId, &Result)) {
        return Result;
    }
    Result = _VQCtrl_RemoveDnsServicePidFile(VpnId);
    if (Result < 0) {
        VQ_CTRL_LOG_ERROR("Remove dns service pid file by vpnid %u failed(%d:%s)\n", VpnId, VQ_CTRL_LOG_REASON(Result));
    }
    return Result;
}

VQ_ERR_T VQCtrl_DnsmasqReload(uint32_t VpnId)
{
    pid_t Pid = 0;
    if (VQCtrl_GetDnsServicePid(VpnId, &Pid) < 0) {
        VQ_CTRL_LOG_NOTICE("Dns service is not exist\n");
        return VQ_ERR_OK;
    }
    VQ_CTRL_LOG_NOTICE("Pid is %d\n", Pid);
    if (kill(Pid, SIGHUP) != 0) {
        const VQ_ERR_T Result = -errno;
        VQ_CTRL_LOG_ERROR("Reload dns service pid %d failed(%d:%s)\n", Pid, VQ_CTRL_LOG_REASON(Result));
        return Result;
    }
    return VQ_ERR_OK;
}

VQ_ERR_T VQCtrl_DnsmasqReboot(uint32_t VpnId)
{
    if (VQCtrl_DnsmasqStop(VpnId) < 0) {
        VQ_CTRL_LOG_WARNING("Stop dnsmasq failed\n");
    }
    return VQCtrl_DnsmasqStart(VpnId);
}

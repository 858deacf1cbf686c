// The DNS instances of the VPNs: their directories, pid files, and whether they run.
#ifndef KAVEL_AGENT_INSTANCES_H
#define KAVEL_AGENT_INSTANCES_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "base/instance_process.h"

namespace kavel::agent {

struct PidFile {
    bool exists = false;
    bool isEmpty = true; // nothing could be read from it
    pid_t pid = 0;       // read the way the module reads it: text that is not a number is 0
    bool isOwn = false;  // only the agent's user can write it
};

class Instances {
  public:
    // `root` is put in front of every path: empty on a box, a temporary directory in a test.
    explicit Instances(std::string root = {}, InstanceIdentity identity = InstanceIdentity::OfBox());

    [[nodiscard]] const InstanceIdentity &Identity() const { return identity_; }

    // The directory of pid files; absolute.
    [[nodiscard]] std::string PidDirectory() const;

    // The directory of the instance's files; the box-wide directory for VPN 0. Without a slash at the end.
    [[nodiscard]] std::string Directory(std::uint32_t vpnId) const;

    // The path of what the agent keeps about the VPN's instance as long as it lives.
    [[nodiscard]] std::string StatePath(std::uint32_t vpnId, std::string_view kind) const;
    // The VPNs that have such a file.
    [[nodiscard]] std::set<std::uint32_t> WithState(std::string_view kind) const;

    // The files that an instance reads, and that a message writes; absolute.
    [[nodiscard]] std::vector<std::string> Files(std::uint32_t vpnId) const;

    // The directories that lead to them, from the outermost one that is the agent's: dnsmasq reads the files as an
    // unprivileged user, who must be able to search them.
    [[nodiscard]] std::vector<std::string> DirectoriesToFiles(std::uint32_t vpnId) const;

    // Creates what is missing of the box-wide directory, which the module expects to exist. Throws std::system_error.
    void CreateBoxDirectory() const;

    // Removes what interrupted writes left in the instance directories.
    void RemoveLeftovers() const;

    [[nodiscard]] PidFile ReadPidFile(std::uint32_t vpnId) const;

    // Whether the process in the pid file is alive and is the VPN's instance.
    [[nodiscard]] bool IsRunning(std::uint32_t vpnId) const;

    // The VPNs that have an instance or a process that starts one.
    [[nodiscard]] std::set<std::uint32_t> WithProcesses() const { return VpnsWithProcesses(identity_); }

    // Replaces a pid file that others can write by one of the agent's own, with the same pid. dnsmasq gives its file to
    // the user that it runs as, and the module trusts the file: that user could direct the module's signals. A replaced
    // file cannot be written through a descriptor that was opened before. Returns what the file holds now. Throws
    // std::system_error.
    [[nodiscard]] PidFile TakePidFile(std::uint32_t vpnId) const;

    // Makes the pid file name this process, which is the VPN's instance. Throws std::system_error.
    void WritePidFile(std::uint32_t vpnId, pid_t pid) const;
    // Removes the pid file. One that does not exist is no failure. Throws std::system_error.
    void RemovePidFile(std::uint32_t vpnId) const;

    // The processes that are an instance, its children or about to become it, by VPN. Reads every process.
    [[nodiscard]] std::map<std::uint32_t, std::vector<pid_t>> ProcessesByVpn() const;

    // Whether an instance of the VPN is meant to run, according to the last applied message. The mark is kept as long
    // as instances live: over a restart of the agent, but not over a restart of the box. Failures are logged.
    [[nodiscard]] bool IsMeantToRun(std::uint32_t vpnId) const;
    void SetMeantToRun(std::uint32_t vpnId, bool isMeant) const;

    // Why a reload would signal a process that is not the VPN's instance; nothing when it is safe. Takes the pid file
    // first, so that it cannot change until the module reads it.
    [[nodiscard]] std::optional<std::string> ReloadObjection(std::uint32_t vpnId) const;

  private:
    std::string root_;
    InstanceIdentity identity_;
};

} // namespace kavel::agent

#endif

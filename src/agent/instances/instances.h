// The DNS instances of the VPNs: their directories, pid files, and whether they run.
#ifndef KAVEL_AGENT_INSTANCES_H
#define KAVEL_AGENT_INSTANCES_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

namespace kavel::agent {

struct PidFile {
    bool exists = false;
    bool isEmpty = true; // nothing could be read from it
    pid_t pid = 0;       // read the way the module reads it: text that is not a number is 0
};

class Instances {
  public:
    // `root` is put in front of every path: empty on a box, a temporary directory in a test.
    explicit Instances(std::string root = {});

    // The directory of pid files; absolute.
    [[nodiscard]] std::string PidDirectory() const;

    // The directory of the instance's files; the box-wide directory for VPN 0. Without a slash at the end.
    [[nodiscard]] std::string Directory(std::uint32_t vpnId) const;

    // Creates what is missing of the box-wide directory, which the module expects to exist. Throws std::system_error.
    void CreateBoxDirectory() const;

    // Removes what interrupted writes left in the instance directories.
    void RemoveLeftovers() const;

    [[nodiscard]] PidFile ReadPidFile(std::uint32_t vpnId) const;

    // Whether the process in the pid file is alive and is the VPN's instance.
    [[nodiscard]] bool IsRunning(std::uint32_t vpnId) const;

    // Whether an instance of the VPN is meant to run, according to the last applied message. The mark is kept as long
    // as instances live: over a restart of the agent, but not over a restart of the box. Failures are logged.
    [[nodiscard]] bool IsMeantToRun(std::uint32_t vpnId) const;
    void SetMeantToRun(std::uint32_t vpnId, bool isMeant) const;

    // Why a reload would signal a process that is not the VPN's instance; nothing when it is safe.
    [[nodiscard]] std::optional<std::string> ReloadObjection(std::uint32_t vpnId) const;

  private:
    [[nodiscard]] std::string MeantPath(std::uint32_t vpnId) const;

    std::string root_;
};

} // namespace kavel::agent

#endif

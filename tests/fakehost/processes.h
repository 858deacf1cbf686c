// Processes, as the process services and /proc show them.
#ifndef FAKEHOST_PROCESSES_H
#define FAKEHOST_PROCESSES_H

#include <cstdint>
#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

namespace fakehost {

class Host;

class Processes {
  public:
    explicit Processes(Host &Owner) : m_Host(Owner) {}

    // Adds a running process. `CommandLine` is as in /proc: each argument ends in a zero byte.
    void Add(pid_t Pid, const std::string &CommandLine);
    // Adds a running process that is the instance of a VPN.
    void AddInstance(pid_t Pid, uint32_t VpnId);
    // Adds a name in /proc that need not be a process.
    void AddName(const std::string &Name) { m_Names.push_back(Name); }
    void PutPidFile(uint32_t VpnId, const std::string &Content);
    [[nodiscard]] static std::string PidFile(uint32_t VpnId);

    [[nodiscard]] bool IsAlive(pid_t Pid) const { return m_Alive.contains(Pid); }
    // Removes the process; false if there was none.
    bool End(pid_t Pid);
    // The names in /proc in order; "." and ".." come first.
    [[nodiscard]] std::vector<std::string> Names() const;

  private:
    Host &m_Host;
    std::set<pid_t> m_Alive;
    std::vector<std::string> m_Names;
};

} // namespace fakehost

#endif

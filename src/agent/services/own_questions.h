// How many questions the agent has sent to the running instances. An instance counts them among the queries that it has
// answered: without them its counters tell what clients have asked.
#ifndef KAVEL_AGENT_OWN_QUESTIONS_H
#define KAVEL_AGENT_OWN_QUESTIONS_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "unique_fd.h"

namespace kavel::agent {

// Only questions over UDP are counted here: dnsmasq answers those over TCP in a process of their own, whose counters
// end with it. The counts are kept in a file below /run, because the instances outlive the agent. A file that cannot be
// read or written is logged for debugging; the counts are right as long as the agent runs.
class OwnQuestions {
  public:
    explicit OwnQuestions(std::string path);

    // A question that was counted.
    struct Ticket {
        std::uint32_t vpnId = 0;
        std::uint64_t launch = 0; // of which process of the VPN
    };

    // A question is sent to the VPN's instance.
    Ticket Add(std::uint32_t vpnId);
    // It has reached nobody.
    void Withdraw(const Ticket &ticket);
    // The questions that the VPN's process got.
    [[nodiscard]] std::uint64_t CountOf(std::uint32_t vpnId) const;

    // A process is launched for the VPN; the one before it has ended.
    void BeginLaunch(std::uint32_t vpnId);
    // This process is the VPN's instance. `startTime` tells it from another one that has the same pid.
    void SetProcess(std::uint32_t vpnId, pid_t pid, std::uint64_t startTime);

  private:
    struct Entry {
        std::size_t slot = 0;
        std::uint64_t launch = 0;
        pid_t pid = 0; // 0: not known yet
        std::uint64_t startTime = 0;
        std::uint64_t count = 0;
    };

    void Load();
    Entry &Of(std::uint32_t vpnId);
    void Save(std::uint32_t vpnId, const Entry &entry);

    std::string path_;
    std::map<std::uint32_t, Entry> entries_;
    UniqueFd file_;
};

} // namespace kavel::agent

#endif

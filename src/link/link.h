// The core of vqlink: what a box does with the messages that the broker sends, and what it says of them. It keeps
// nothing that the agent or the broker does not have: both are asked again after a start.
#ifndef KAVEL_LINK_LINK_H
#define KAVEL_LINK_LINK_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "control.pb-c.h"
#include "desired.h"
#include "drop_log.h"
#include "ports.h"
#include "report.h"
#include "report_queue.h"
#include "state_log.h"
#include "waiting_messages.h"

namespace kavel::link {

class Link {
  public:
    using Time = std::chrono::steady_clock::time_point;

    static constexpr std::size_t kVpnsMax = 4096;
    static constexpr std::chrono::seconds kStatusInterval{10};

    struct Options {
        std::string box;                        // its name
        std::string version;                    // of the link
        std::function<Time()> now;              // the steady clock
        std::function<std::int64_t()> unixTime; // seconds
    };

    // The ports must outlive this object.
    Link(Options options, AgentPort &agent, BrokerPort &broker);

    // What the broker's side tells: see broker::Session::Events.
    void BrokerConnected();
    void BrokerClosed(const std::string &why);
    void Received(broker::Message message);
    void Published(std::uint64_t publication, const std::string &problem);

    // What the agent's side tells: see AgentPort::Events.
    void AgentConnected();
    void AgentClosed(const std::string &why);
    void Answered(const Kavel__Reply &reply);

    // When OnTime() must be called; nothing: not before one of the functions above was.
    [[nodiscard]] std::optional<Time> NextTime() const;
    void OnTime() { Work(); }

    // Says at the broker that the box is not online any more, and does nothing else from now on. `onDone` is called
    // when the broker has acknowledged it, or cannot: by one of the functions above, or inside this call.
    void Leave(std::function<void()> onDone);

    // One line for people: "the broker is connected, the agent answers, 2 messages wait".
    [[nodiscard]] std::string StateText() const;

  private:
    struct Vpn {
        broker::Revision newest = 0;   // of the messages that wait, are at the agent or were answered
        broker::Revision answered = 0; // by the agent; 0: none
        bool isUnknown = false;        // the agent has no such VPN
        bool isMissed = false;         // its message must be asked for again
        broker::Report report;
    };

    [[nodiscard]] Vpn *FindOrAdd(std::uint32_t vpnId);
    void Drop(const Unusable &unusable);
    void Take(Desired message);

    // Gives the agent its next request, if it can take one.
    void Work();
    void AskStatus();
    void Apply(Desired message);
    void TakeApplied(Desired message, const Kavel__Reply &reply);
    void TakeStatuses(const Kavel__Reply &reply);
    void TakeStatusOf(const Kavel__VpnStatus &status);
    void AskForMissed();

    void Tell(std::uint32_t vpnId, const Vpn &vpn);
    void TellPresence();
    void EndLeaving();

    const Options options_;
    AgentPort &agent_;
    BrokerPort &broker_;
    ReportQueue reports_;
    WaitingMessages waiting_;
    DropLog drops_;
    std::map<std::uint32_t, Vpn> vpns_;

    bool isBrokerConnected_ = false;
    std::int64_t connectedSince_ = 0; // Unix time
    StateLog brokerLog_;
    std::function<void()> onLeft_;
    bool isLeaving_ = false;

    bool isAgentConnected_ = false;
    bool isAgentAnswering_ = false; // since it is connected
    bool isFirstStatus_ = false;    // since it is connected, the next one is
    StateLog agentLog_;
    Time statusAt_{};
    bool isStatusUnderWay_ = false;
    std::optional<Desired> applying_;
};

} // namespace kavel::link

#endif

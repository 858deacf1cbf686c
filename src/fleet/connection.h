// The connection of a command to the broker: what all commands need besides broker::Session.
#ifndef KAVEL_FLEET_CONNECTION_H
#define KAVEL_FLEET_CONNECTION_H

#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "config.h"
#include "console.h"
#include "event_loop.h"
#include "session.h"

namespace kavel::fleet {

// How long the broker may be away, or silent although it is waited for.
struct Patience {
    std::chrono::seconds limit{30};
    // Whether that holds for the first connection, too. If not, the command ends at the first failure.
    bool alsoAtStart = false;
};

// A broker does not say when it has sent all retained messages of a subscription. So the client publishes a message,
// the mark, to a topic to which it is subscribed, after its subscriptions: when the mark comes back, everything before
// it has arrived. The topic is kavel-fleet/NAME/mark; the last mark stays there,
// as all that a session publishes does. A broker whose queue for this client is too short drops the mark,
// too; a second mark that comes back without the first shows that.
class Connection {
  public:
    // Each may be empty. What they throw ends Run(), which throws it.
    struct Events {
        std::function<void()> connected = {}; // for the first time, or again: subscriptions are gone
        std::function<void()> closed = {};    // what was published and not acknowledged is forgotten
        std::function<void(const broker::Message &message)> received = {};
        // Everything retained has arrived, for the subscriptions before the last SendMark().
        std::function<void()> arrived = {};
        // The broker has acknowledged a publication; `problem`: refused, one line, or else empty.
        std::function<void(std::uint64_t publication, const std::string &problem)> published = {};
    };

    // Blocks SIGINT and SIGTERM, unless they are ignored, until it is destroyed. Throws
    // broker::SessionError: the certificate or the key cannot be used.
    Connection(const Console &console, const Settings &settings, Patience patience);
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;
    ~Connection();

    // Connects, runs until `isDone` is true, which is checked after each event, and says goodbye to the broker. Throws
    // BrokerError, Interrupted, and what the events throw.
    void Run(Events events, const std::function<bool()> &isDone);

    // They return at once. While there is no connection, they do nothing, and Publish() returns nothing.
    void Subscribe(const std::vector<std::string> &filters);
    void Unsubscribe(const std::vector<std::string> &filters);
    [[nodiscard]] std::optional<std::uint64_t> Publish(const broker::Message &message);
    void SendMark();

    [[nodiscard]] EventLoop &Loop() { return loop_; }
    [[nodiscard]] bool IsConnected() const { return session_.IsConnected(); }
    // Why nothing comes from the broker; one line.
    [[nodiscard]] std::string SilenceText() const;

  private:
    using Clock = std::chrono::steady_clock;

    class SignalBlock {
      public:
        SignalBlock();
        ~SignalBlock();
        SignalBlock(const SignalBlock &) = delete;
        SignalBlock &operator=(const SignalBlock &) = delete;
        [[nodiscard]] const sigset_t &Blocked() const { return blocked_; }

      private:
        sigset_t blocked_{};
        sigset_t before_{};
    };

    [[nodiscard]] broker::Session::Options SessionOptions() const;
    [[nodiscard]] broker::Session::Events SessionEvents();
    void OnConnected();
    void OnClosed(const std::string &why);
    void OnReceived(const broker::Message &message);
    void OnMark(const broker::Message &message);
    void OnPublished(std::uint64_t publication, const std::string &problem);
    void OnSilence();
    void OnProbe();
    void PublishMark();
    void WatchSignals();
    void SayGoodbye();
    [[nodiscard]] bool IsWaiting() const;

    const Console &console_;
    const Settings settings_;
    const Patience patience_;
    const std::string clientId_;
    const std::string markTopic_;
    SignalBlock signals_;
    EventLoop loop_;
    broker::Session session_;
    Events events_;

    bool wasConnected_ = false;
    std::string lastProblem_;    // why there is no connection, as it was told
    Clock::time_point lastSign_; // of the broker
    std::size_t unacknowledged_ = 0;
    std::uint64_t firstMark_ = 0; // the one that is awaited; 0: none
    std::uint64_t lastMark_ = 0;
    std::unordered_set<std::uint64_t> markPublications_;
    EventSource silence_;
    EventSource probe_;
    std::vector<EventSource> signalSources_;
};

} // namespace kavel::fleet

#endif

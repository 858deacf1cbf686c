// A link between a fake agent and a fake broker, with a clock that the test moves.
#ifndef KAVEL_TESTS_LINK_LINK_FIXTURE_H
#define KAVEL_TESTS_LINK_LINK_FIXTURE_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

#include "link.h"
#include "report.h"

namespace kavel::link {

struct SentRequest {
    Kavel__Request__Verb verb = KAVEL__REQUEST__VERB__STATUS;
    std::string message;
    std::optional<std::uint32_t> vpn;
    std::string revision;
    bool isOnlyNewer = false;
    std::optional<bool> isForPop;
};

class FakeAgent : public AgentPort {
  public:
    void Start(Events /*events*/) override {}
    void Send(const Kavel__Request &request) override;

    std::deque<SentRequest> requests; // that are not answered
};

struct Publication {
    std::uint64_t number = 0;
    std::string topic;
    std::string text;
};

class FakeBroker : public BrokerPort {
  public:
    [[nodiscard]] std::optional<std::uint64_t> Publish(const broker::Message &message) override;
    void AskAgain(const std::string &topic) override { asked.push_back(topic); }

    bool isConnected = false;
    std::vector<Publication> publications; // that are not acknowledged
    std::vector<std::string> asked;

  private:
    std::uint64_t last_ = 0;
};

// The parts of a status that the link reads.
struct FakeStatus {
    std::uint32_t vpn = 7;
    std::string revision{}; // in force
    bool isMeant = true;
    bool isRunning = true;
    bool isStarting = false;
    std::string lastRevision{}; // of the last numbered message; empty: there was none
    std::int32_t lastResult = 0;
    std::string lastOutcome = "applied";
    std::string problem{};
    std::string netns = "vpn_7";
};

// Calls `use` with the reply that consists of these.
void WithStatusReply(const std::vector<FakeStatus> &statuses, bool isStarting,
                     const std::function<void(const Kavel__Reply &reply)> &use);

inline constexpr std::int64_t kUnixTime = 1'780'000'000;

class LinkTest : public testing::Test {
  protected:
    using Fill = std::function<void(Kavel__Reply &reply)>;

    // Both sides are connected, and the agent has told its status.
    void ConnectAll(const std::vector<FakeStatus> &statuses = {});
    void ConnectBroker();
    void CloseBroker();
    void Receive(std::uint32_t vpn, const std::string &revision, const std::string &payload = "payload");
    void ReceiveMessage(broker::Message message) { link_.Received(std::move(message)); }

    // The request that the agent has now. Fails if there is none.
    [[nodiscard]] SentRequest Request();
    [[nodiscard]] bool HasRequest() const { return !agent_.requests.empty(); }
    void Answer(std::int32_t result, const Fill &fill = {});
    // Applied, in force, running.
    void AnswerApplied();
    void AnswerRefused(const std::string &reason);
    void AnswerStatus(const std::vector<FakeStatus> &statuses, bool isStarting = false);
    // Until the next status is asked for.
    void WaitForStatus();

    void Pass(std::chrono::milliseconds time);

    // All publications are acknowledged until there is none any more. The last text of the topic; empty: none.
    std::string LastText(const std::string &topic);
    std::optional<broker::Report> LastReport(std::uint32_t vpn);
    void Acknowledge(const std::string &problem = {});

    Link::Time now_{std::chrono::hours(1)};
    FakeAgent agent_;
    FakeBroker broker_;
    Link link_{{"branch-1", "1.2", [this] { return now_; }, [] { return kUnixTime; }}, agent_, broker_};

  private:
    std::map<std::string, std::string> texts_;
};

} // namespace kavel::link

#endif

// A session whose events are kept, and a loop that a test can wait in.
#ifndef KAVEL_TESTS_BROKER_TEST_SESSION_H
#define KAVEL_TESTS_BROKER_TEST_SESSION_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "event_loop.h"
#include "session.h"

namespace kavel::broker {

// Runs the loop until the condition holds. False, and the test has failed, if that takes longer than any test may.
[[nodiscard]] bool WaitFor(EventLoop &loop, const std::function<bool()> &condition);

// Runs the loop for as long as what is ready now takes.
void RunReady(EventLoop &loop);

class TestSession {
  public:
    TestSession(EventLoop &loop, Session::Options options);

    // Called after the event was kept; a test may replace it.
    std::function<void(std::string_view event)> onEvent = [](std::string_view) {};

    int connections = 0;
    std::vector<std::string> closed;
    std::vector<Message> received;
    std::map<std::uint64_t, std::vector<std::string>> published; // the problems by publication

    Session *operator->() { return session.get(); }
    // Starts and waits for the connection.
    [[nodiscard]] bool Connect();
    // Publishes and waits for the answer: the problem.
    [[nodiscard]] std::string PublishAndWait(const Message &message);
    // Stops and waits for the end.
    [[nodiscard]] bool Disconnect();
    // Waits for a message with this payload.
    [[nodiscard]] bool WaitForPayload(std::string_view payload);

    std::unique_ptr<Session> session;

  private:
    EventLoop &loop_;
};

[[nodiscard]] Message MessageOf(const std::string &topic, std::string_view payload);
[[nodiscard]] std::string PayloadOf(const Message &message);
// The payloads in the order of their arrival.
[[nodiscard]] std::vector<std::string> PayloadsOf(const std::vector<Message> &messages);

} // namespace kavel::broker

#endif

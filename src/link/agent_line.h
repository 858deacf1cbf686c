// The agent's control socket, without blocking.
#ifndef KAVEL_LINK_AGENT_LINE_H
#define KAVEL_LINK_AGENT_LINE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "backoff.h"
#include "event_loop.h"
#include "ports.h"
#include "unique_fd.h"

namespace kavel::link {

class AgentLine : public AgentPort {
  public:
    // An agent that does not answer within so many seconds is disconnected.
    static constexpr std::chrono::seconds kAnswerMax{60};

    // `path` is the socket's. `loop` must outlive this object.
    AgentLine(EventLoop &loop, std::string path, std::chrono::milliseconds answerMax = kAnswerMax);

    void Start(Events events) override;
    void Send(const Kavel__Request &request) override;

  private:
    void Connect();
    void OnSocket(std::uint32_t ready);
    void OnTimer();
    void Write();
    void Read();
    void TakeFrame();
    void Close(const std::string &why);

    EventLoop &loop_;
    std::string path_;
    std::chrono::milliseconds answerMax_;
    Events events_;
    broker::Backoff backoff_;
    UniqueFd socket_;
    EventSource io_;
    EventSource timer_; // ends the wait for the next attempt, or for the answer
    bool isBusy_ = false;
    std::vector<std::uint8_t> out_;
    std::size_t sent_ = 0;
    std::vector<std::uint8_t> in_;
};

} // namespace kavel::link

#endif

// One connection to the agent's control socket. Every failure of the connection is thrown as an AgentError.
#ifndef KAVEL_CTL_CLIENT_H
#define KAVEL_CTL_CLIENT_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "control.pb-c.h"
#include "deadline.h"
#include "unique_fd.h"

namespace kavel::ctl {

struct ReplyRelease {
    void operator()(Kavel__Reply *reply) const { kavel__reply__free_unpacked(reply, nullptr); }
};
using ReplyPtr = std::unique_ptr<Kavel__Reply, ReplyRelease>;

// Packs a request. Throws InputError when the request is larger than kFrameMax.
std::vector<std::uint8_t> PackRequest(const Kavel__Request &request);

// What else may happen while a client waits for the agent.
struct Waiting {
    std::chrono::milliseconds noticeAfter{0}; // since the exchange has begun
    std::function<void()> notice;             // called once, at that time; may be empty
    int interrupt = -1;                       // when this descriptor is readable, Interrupted is thrown; -1: none
};

class Client {
  public:
    // `timeout` limits each exchange.
    Client(UniqueFd socket, std::chrono::milliseconds timeout) : socket_(std::move(socket)), timeout_(timeout) {}

    // Connects to the socket at `path`. Fails at once when no agent listens there.
    static Client Connect(const std::string &path, std::chrono::milliseconds timeout);

    // Sends a packed request and waits for the reply.
    ReplyPtr Exchange(std::span<const std::uint8_t> request, Waiting waiting = {});

  private:
    // One exchange: its limit, and what else may happen.
    struct Wait {
        Deadline end;
        Deadline notice;
        Waiting other;
    };

    void WaitFor(short events, Wait &wait) const;
    void Send(std::span<const std::uint8_t> bytes, Wait &wait) const;
    void Receive(std::span<std::uint8_t> bytes, Wait &wait) const;

    UniqueFd socket_;
    std::chrono::milliseconds timeout_;
};

} // namespace kavel::ctl

#endif

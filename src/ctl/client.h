// One connection to the agent's control socket. Every failure of the connection is thrown as an AgentError.
#ifndef KAVEL_CTL_CLIENT_H
#define KAVEL_CTL_CLIENT_H

#include <chrono>
#include <cstdint>
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

class Client {
  public:
    // `timeout` limits each exchange.
    Client(UniqueFd socket, std::chrono::milliseconds timeout) : socket_(std::move(socket)), timeout_(timeout) {}

    // Connects to the socket at `path`. Fails at once when no agent listens there.
    static Client Connect(const std::string &path, std::chrono::milliseconds timeout);

    // Sends a packed request and waits for the reply.
    ReplyPtr Exchange(std::span<const std::uint8_t> request);

  private:
    void WaitFor(short events, const Deadline &deadline) const;
    void Send(std::span<const std::uint8_t> bytes, const Deadline &deadline) const;
    void Receive(std::span<std::uint8_t> bytes, const Deadline &deadline) const;

    UniqueFd socket_;
    std::chrono::milliseconds timeout_;
};

} // namespace kavel::ctl

#endif

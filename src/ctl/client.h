// One connection to the agent's control socket. Whatever goes wrong on it is an AgentError.
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

// Packs a request; InputError when it is larger than a frame may be.
std::vector<std::uint8_t> PackRequest(const Kavel__Request &request);

class Client {
  public:
    // Each exchange takes `patience` at most.
    Client(UniqueFd socket, std::chrono::milliseconds patience) : socket_(std::move(socket)), patience_(patience) {}

    // Connects to the socket at `path`, or fails at once.
    static Client Connect(const std::string &path, std::chrono::milliseconds patience);

    // Sends a packed request and waits for its reply.
    ReplyPtr Exchange(std::span<const std::uint8_t> request);

  private:
    void WaitFor(short events, const Deadline &deadline) const;
    void Send(std::span<const std::uint8_t> bytes, const Deadline &deadline) const;
    void Receive(std::span<std::uint8_t> bytes, const Deadline &deadline) const;

    UniqueFd socket_;
    std::chrono::milliseconds patience_;
};

} // namespace kavel::ctl

#endif

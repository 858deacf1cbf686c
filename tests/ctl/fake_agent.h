// What the tests put at the other end of the control socket.
#ifndef KAVEL_TESTS_CTL_FAKE_AGENT_H
#define KAVEL_TESTS_CTL_FAKE_AGENT_H

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "control.pb-c.h"
#include "unique_fd.h"

namespace kavel::ctl {

using Bytes = std::vector<std::uint8_t>;

// A packed reply of `result` that `fill` completes. The strings it sets only have to live until it returns.
Bytes PackReply(std::int32_t result, const std::function<void(Kavel__Reply &)> &fill = {});

// The frame that carries `payload`.
Bytes Frame(const Bytes &payload);

// Writes all of it; false when the peer is gone.
bool WriteBytes(int fd, std::span<const std::uint8_t> bytes);

// Reads one frame's payload; empty at the end of the connection.
Bytes ReadFrame(int fd);

// A directory of its own, removed with everything in it.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    [[nodiscard]] std::string File(const std::string &name) const { return path_ + "/" + name; }
    // Creates a file there and returns its path.
    [[nodiscard]] std::string Write(const std::string &name, const std::string &content) const;

  private:
    std::string path_;
};

// Serves one connection: answers the n-th request with the n-th reply, then closes. An empty reply closes at once.
class FakeAgent {
  public:
    explicit FakeAgent(std::vector<Bytes> replies);
    ~FakeAgent();
    FakeAgent(const FakeAgent &) = delete;
    FakeAgent &operator=(const FakeAgent &) = delete;

    [[nodiscard]] std::string Socket() const { return dir_.File("agent.sock"); }
    // The packed requests that came in. Ends the service.
    const std::vector<Bytes> &Requests();

  private:
    void Serve();

    TempDir dir_;
    std::vector<Bytes> replies_;
    std::vector<Bytes> requests_;
    UniqueFd listener_;
    std::thread thread_;
};

} // namespace kavel::ctl

#endif

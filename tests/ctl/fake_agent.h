// A fake agent for the tests, and helpers for frames and files.
#ifndef KAVEL_TESTS_CTL_FAKE_AGENT_H
#define KAVEL_TESTS_CTL_FAKE_AGENT_H

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "control.pb-c.h"
#include "unique_fd.h"

namespace kavel::ctl {

using Bytes = std::vector<std::uint8_t>;

// A packed reply with `result` and what `fill` sets. The strings that `fill` sets need to live until it returns only.
Bytes PackReply(std::int32_t result, const std::function<void(Kavel__Reply &)> &fill = {});

struct RequestRelease {
    void operator()(Kavel__Request *request) const { kavel__request__free_unpacked(request, nullptr); }
};
using RequestPtr = std::unique_ptr<Kavel__Request, RequestRelease>;

// Null when `packed` is not a request.
RequestPtr DecodeRequest(const Bytes &packed);

// The frame that carries `payload`.
Bytes Frame(const Bytes &payload);

// Writes all bytes. False when the peer has closed the connection.
bool WriteBytes(int fd, std::span<const std::uint8_t> bytes);

// Reads one frame and returns its payload; empty at the end of the connection.
Bytes ReadFrame(int fd);

// A new temporary directory. The destructor removes it and everything in it.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    [[nodiscard]] std::string File(const std::string &name) const { return path_ + "/" + name; }
    // Creates a file in it and returns the path.
    [[nodiscard]] std::string Write(const std::string &name, const std::string &content) const;

  private:
    std::string path_;
};

// Serves one connection: replies to the n-th request with the n-th of `replies` and closes after the last. An empty
// reply closes the connection at once.
class FakeAgent {
  public:
    // `onRequest` is called with the number of each request, from 1, before its reply is sent. It runs in another
    // thread.
    explicit FakeAgent(std::vector<Bytes> replies, std::function<void(std::size_t)> onRequest = {});
    ~FakeAgent();
    FakeAgent(const FakeAgent &) = delete;
    FakeAgent &operator=(const FakeAgent &) = delete;

    [[nodiscard]] std::string Socket() const { return dir_.File("agent.sock"); }
    // Stops the agent and returns the packed requests that it received.
    const std::vector<Bytes> &Requests();

  private:
    void Serve();

    TempDir dir_;
    std::vector<Bytes> replies_;
    std::function<void(std::size_t)> onRequest_;
    std::vector<Bytes> requests_;
    UniqueFd listener_;
    std::thread thread_;
};

} // namespace kavel::ctl

#endif

// The verbs of the control socket.
#ifndef KAVEL_AGENT_REQUESTS_H
#define KAVEL_AGENT_REQUESTS_H

#include <cstdint>
#include <functional>
#include <optional>
#include <span>

#include "base/config.h"
#include "instances/launches.h"
#include "instances/module.h"
#include "socket/answer.h"

namespace kavel::agent {

// What a VPN's namespace must hold before its instance is of use: loopback up, and the rule that selects the instance's
// route table. 0 or a negated errno.
int PrepareNamespace(std::uint32_t vpnId);

class Requests {
  public:
    using Respond = std::function<void(const Answer &)>;

    // All of them outlive this object.
    Requests(const Module &module, const Config &config, Launches &launches)
        : module_(module), config_(config), launches_(launches)
    {
    }

    // `frame` holds one packed Request. `respond` is called once: before this returns, or, of a message that launches
    // an instance, when that launch ends.
    void Handle(std::span<const std::uint8_t> frame, const Respond &respond) const;

  private:
    [[nodiscard]] Answer AnswerTo(const Kavel__Request &request) const;
    [[nodiscard]] Answer Apply(std::span<const std::uint8_t> message) const;
    [[nodiscard]] Answer Check(std::span<const std::uint8_t> message) const;
    [[nodiscard]] Answer Status(const Kavel__Request &request) const;
    [[nodiscard]] Answer InitDirectory(const Kavel__Request &request) const;
    [[nodiscard]] Answer ReleaseDirectory(const Kavel__Request &request) const;

    // Why the directory of the request's VPN cannot be made or removed; nothing when it can.
    [[nodiscard]] std::optional<Answer> DirectoryObjection(const Kavel__Request &request) const;

    const Module &module_;
    const Config &config_;
    Launches &launches_;
};

} // namespace kavel::agent

#endif

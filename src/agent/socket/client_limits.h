// How much of what all clients of the control socket share those with limited rights may take.
#ifndef KAVEL_AGENT_CLIENT_LIMITS_H
#define KAVEL_AGENT_CLIENT_LIMITS_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "socket/access.h"

namespace kavel::agent {

// In the order in which idle clients are closed.
enum class ClientKind : std::uint8_t {
    kReader,
    kUser, // a user of the system that is admitted by its name
    kOwner,
};

[[nodiscard]] ClientKind KindOf(Access access);

// Of connections, and of requests that are not answered, also those of clients that have left. The others are kept for
// the agent's owner.
inline constexpr std::size_t kReadersMax = 32;
inline constexpr std::size_t kUsersMax = 16; // connections of all users
inline constexpr std::size_t kUserMax = 4;   // of each
inline constexpr std::size_t kUsersRequestsMax = 8;
// Bytes of the frames of the users' requests that are not answered, and as many of their unfinished frames.
inline constexpr std::size_t kUsersBytesMax = std::size_t{32} * 1024 * 1024;

// A request of a client, as it is counted.
struct RequestShare {
    ClientKind kind = ClientKind::kOwner;
    uid_t user = 0;
    std::size_t bytes = 0; // of its frame
};

// The requests that are not answered.
class UnansweredRequests {
  public:
    // Why another one is too much; nothing when it is not.
    [[nodiscard]] std::optional<std::string> Objection(const RequestShare &share) const;

    // Counts one, until it is ended.
    void Begin(const RequestShare &share);
    void End(const RequestShare &share);

  private:
    std::size_t ofReaders_ = 0;
    std::size_t ofUsers_ = 0;
    std::size_t usersBytes_ = 0;
    std::map<uid_t, std::size_t> byUser_; // none is 0
};

} // namespace kavel::agent

#endif

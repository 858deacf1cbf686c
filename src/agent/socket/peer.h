// Who is at the other end of a control socket's connection, and what it may do.
#ifndef KAVEL_AGENT_PEER_H
#define KAVEL_AGENT_PEER_H

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kavel::agent {

// As the kernel has noted it when the peer connected.
struct Peer {
    pid_t pid = 0;
    uid_t user = 0;
    std::vector<gid_t> groups; // all of them
};

enum class Access {
    kNone,
    kRead, // it may ask for what changes nothing
    kFull,
};

// Of a connected Unix socket. Throws std::system_error.
[[nodiscard]] Peer PeerOf(int socket);

// Root and the agent's own user may do everything; the members of the group `readers` may read.
[[nodiscard]] Access AccessOf(const Peer &peer, std::optional<gid_t> readers);
using AccessRule = std::function<Access(const Peer &peer, std::optional<gid_t> readers)>;

// The group called `name`. Nothing, and an error line, when there is none.
[[nodiscard]] std::optional<gid_t> GroupNamed(const std::string &name);

// Lets the group use the socket file at `path`, which has the mode 0600 and belongs to the agent's user. If this fails,
// there is an error line, and the file stays as it is.
void OpenToGroup(const std::string &path, gid_t group);

// While it lives, the files that this thread creates belong to the group, if the process may do this.
class FileGroupScope {
  public:
    explicit FileGroupScope(std::optional<gid_t> group);
    FileGroupScope(const FileGroupScope &) = delete;
    FileGroupScope &operator=(const FileGroupScope &) = delete;
    ~FileGroupScope();

  private:
    std::optional<gid_t> before_;
    int dumpable_;
};

} // namespace kavel::agent

#endif

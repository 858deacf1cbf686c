// Who is at the other end of a control socket's connection, and what it may do.
#ifndef KAVEL_AGENT_PEER_H
#define KAVEL_AGENT_PEER_H

#include <sys/types.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/config.h"
#include "socket/access.h"

namespace kavel::agent {

// As the kernel has noted it when the peer connected.
struct Peer {
    pid_t pid = 0;
    uid_t user = 0;
    std::vector<gid_t> groups; // all of them
};

// Of a connected Unix socket. Throws std::system_error.
[[nodiscard]] Peer PeerOf(int socket);

// Who may connect beside root and the agent's own user.
struct AdmittedPeers {
    std::optional<gid_t> readers; // the group whose members have Access::kRead
    std::map<uid_t, Access> users;
};

// Those of the configuration. A group or a user that does not exist gets an error line and is left out.
[[nodiscard]] AdmittedPeers AdmittedBy(const Config &config);

// Root and the agent's own user may do everything; others what they are admitted for.
[[nodiscard]] Access AccessOf(const Peer &peer, const AdmittedPeers &admitted);
using AccessRule = std::function<Access(const Peer &peer, const AdmittedPeers &admitted)>;

// Lets those who are admitted use the socket file at `path`, which has the mode 0600 and belongs to the agent's user.
// What fails gets an error line and lets nobody in.
void OpenSocketFile(const std::string &path, const AdmittedPeers &admitted);

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

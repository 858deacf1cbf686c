// The control socket: many peers, one request at a time, and answers when they are there.
#ifndef KAVEL_AGENT_CONTROL_SOCKET_H
#define KAVEL_AGENT_CONTROL_SOCKET_H

#include <poll.h>

#include <functional>
#include <span>
#include <string>
#include <vector>

#include "socket/answer.h"
#include "socket/connection.h"
#include "unique_fd.h"

namespace kavel::agent {

class ControlSocket {
  public:
    using Respond = std::function<void(const Answer &)>;
    // Gets a frame and what to call with its answer: once, before it returns or later, but not after Serve() has. The
    // frame is gone by then.
    using Handler = std::function<void(std::span<const std::uint8_t> frame, const Respond &respond)>;

    // Replaces a socket that an earlier agent left at `path`; only the holder of the agent's lock may do so. Throws
    // std::system_error. The socket is removed again with this object.
    ControlSocket(std::string path, Handler handler);
    ControlSocket(const ControlSocket &) = delete;
    ControlSocket &operator=(const ControlSocket &) = delete;
    ~ControlSocket();

    // Calls `onEvent` whenever `fd` can be read; it says whether serving goes on.
    void Watch(int fd, std::function<bool()> onEvent);

    // Serves until a watched event ends it.
    void Serve();

  private:
    using Clock = Connection::Clock;

    struct Watched {
        int fd;
        std::function<bool()> onEvent;
    };

    bool ServeOnce();
    [[nodiscard]] std::vector<pollfd> PollList(Clock::time_point now) const;
    [[nodiscard]] int PollTimeout(Clock::time_point now) const;
    [[nodiscard]] bool Accepts(Clock::time_point now) const;
    [[nodiscard]] bool IsFull() const;
    bool RunWatchers(std::span<const pollfd> events) const;
    void MakeRoom();
    void AcceptAll(Clock::time_point now);
    void Admit(UniqueFd socket);
    void AdvanceAll(std::span<const pollfd> events, Clock::time_point now);
    void DropFinished();
    void DropStalled(Clock::time_point now);
    void DismissOversized(Clock::time_point now);
    void HandleNext();
    void Handle(const Connection &connection);
    void Reply(int fd, const Answer &answer);
    void FlushReplies();

    std::string path_;
    Handler handler_;
    UniqueFd listener_;
    std::vector<Watched> watched_;
    std::vector<Connection> connections_;
    Clock::time_point acceptAfter_{};
};

} // namespace kavel::agent

#endif

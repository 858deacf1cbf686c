// The control socket: accepts clients, hands their frames to a handler, and sends the answers when they are ready.
#ifndef KAVEL_AGENT_CONTROL_SOCKET_H
#define KAVEL_AGENT_CONTROL_SOCKET_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "base/files.h"
#include "event_loop.h"
#include "socket/answer.h"
#include "socket/client_limits.h"
#include "socket/connection.h"
#include "socket/peer.h"
#include "unique_fd.h"

namespace kavel::agent {

// Of all connections together one frame is handed over per iteration of the loop, so that signals and other events are
// seen between two requests, and a client with many requests does not delay the others.
class ControlSocket {
  public:
    // Handles one frame. `respond` is called once, before the handler returns or later.
    using Handler = std::function<void(ReceivedFrame frame, const Respond &respond)>;

    // The bytes that all clients together may have sent of frames that are not handed over yet.
    static constexpr std::size_t kReceivedBytesMax = std::size_t{64} * 1024 * 1024;

    // A frame of a client that applies no messages is short.
    static constexpr std::size_t kShortFrameMax = 4096;

    // Listens at `path`, in the place of a socket that an earlier agent left there; only the holder of the agent's lock
    // may do so. Clients are root, the agent's own user, and those who are admitted, as `rule` says. A frame tells what
    // its sender may do; the handler decides about it. Throws std::system_error. `loop` must outlive this object.
    ControlSocket(EventLoop &loop, std::string path, Handler handler, AdmittedPeers admitted = {},
                  AccessRule rule = AccessOf);
    ControlSocket(const ControlSocket &) = delete;
    ControlSocket &operator=(const ControlSocket &) = delete;
    // Removes the socket, unless another one is at the path by now.
    ~ControlSocket();

    // Stops accepting and reading. Calls `onDrained` when every reply is sent, and after 1 s at the latest.
    void Drain(std::function<void()> onDrained);

  private:
    using Clock = EventLoop::Clock;
    using ClientId = std::uint64_t; // never used again, unlike a descriptor

    struct Client {
        Connection connection;
        std::string name; // "pid 123, uid 0 (vqctl)"
        uid_t user = 0;
        Access access = Access::kNone;
        EventSource source;

        [[nodiscard]] ClientKind Kind() const { return KindOf(access); }
    };
    // Which clients share a number of connections.
    using Sharing = std::function<bool(const Client &client)>;

    void Accept();
    [[nodiscard]] std::map<ClientId, Client>::iterator FindIdleClient(const Sharing &isAmong);
    bool CloseIdleClient(const Sharing &isAmong, std::size_t most);
    void Admit(UniqueFd socket);
    [[nodiscard]] bool HasRoomFor(ClientKind kind, uid_t user);
    [[nodiscard]] bool MakeRoom(const Sharing &isAmong, std::size_t most);
    void ProcessClient(ClientId id);
    void ProcessFrame(ClientId id);
    void HandleNextFrame();
    void SendAnswer(ClientId id, const Answer &answer);
    void Dismiss(Connection &connection, std::int32_t error, const std::string &text) const;
    void Update(ClientId id);
    void UpdateDraining(ClientId id);
    void UpdateListener();
    void UpdateDeadlineTimer();
    void CloseStalledClients();
    [[nodiscard]] bool IsFull() const;

    EventLoop &loop_;
    std::string path_;
    Handler handler_;
    UniqueFd listener_;
    FileIdentity bound_; // what listener_ was bound to
    AdmittedPeers admitted_;
    AccessRule rule_;
    ReceiveBudget budget_;
    ReceiveBudget usersBudget_;
    std::map<ClientId, Client> clients_;
    ClientId lastId_ = 0;
    UnansweredRequests unanswered_;
    std::set<ClientKind> turnedAway_; // of which a client was turned away, and none was admitted since
    std::deque<ClientId> ready_;      // clients whose next frame is in their buffer
    EventSource accept_;
    EventSource resumeAccepting_;
    EventSource deadlines_;
    EventSource nextFrame_;
    EventSource drainTimer_;
    bool isAcceptPaused_ = false;
    std::function<void()> onDrained_; // set while draining
    bool isDrained_ = false;          // onDrained_ was called
};

} // namespace kavel::agent

#endif

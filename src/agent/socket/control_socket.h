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
#include <string>

#include "base/files.h"
#include "event_loop.h"
#include "socket/answer.h"
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

    // Of all connections, and of unanswered requests: those of readers. The others are kept for the agent's owner. A
    // frame of a reader is short.
    static constexpr std::size_t kReadersMax = 32;
    static constexpr std::size_t kReaderFrameMax = 4096;

    // Listens at `path`, in the place of a socket that an earlier agent left there; only the holder of the agent's lock
    // may do so. Clients are root, the agent's own user, and the members of the group `readers`, as `rule` says. A
    // reader's frames are marked; the handler decides about them. Throws std::system_error. `loop` must outlive this
    // object.
    ControlSocket(EventLoop &loop, std::string path, Handler handler, std::optional<gid_t> readers = std::nullopt,
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
        bool isReader = false;
        EventSource source;
    };
    enum class Among { kAll, kReaders };

    void Accept();
    [[nodiscard]] std::map<ClientId, Client>::iterator FindIdleClient(Among among);
    bool CloseIdleClient(Among among);
    void Admit(UniqueFd socket);
    [[nodiscard]] bool HasRoomForReader();
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
    std::optional<gid_t> readers_;
    AccessRule rule_;
    ReceiveBudget budget_;
    std::map<ClientId, Client> clients_;
    ClientId lastId_ = 0;
    std::size_t readerRequests_ = 0; // that are not answered, also of readers that have left
    bool areReadersTurnedAway_ = false;
    std::deque<ClientId> ready_; // clients whose next frame is in their buffer
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

#include "socket/control_socket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "base/failure.h"
#include "base/log.h"
#include "frame.h"

namespace kavel::agent {
namespace {

constexpr std::size_t kConnectionsMax = 64;
constexpr std::chrono::seconds kAcceptPause{1};
constexpr std::chrono::seconds kFlushPatience{1};
constexpr mode_t kSocketUmask = 0177;

class UmaskScope {
  public:
    explicit UmaskScope(mode_t mask) : saved_(::umask(mask)) {}
    UmaskScope(const UmaskScope &) = delete;
    UmaskScope &operator=(const UmaskScope &) = delete;
    ~UmaskScope() { ::umask(saved_); }

  private:
    mode_t saved_;
};

void RemoveStaleSocket(const std::string &path)
{
    struct stat info {};
    if (::lstat(path.c_str(), &info) == 0 && S_ISSOCK(info.st_mode)) {
        ::unlink(path.c_str());
    }
}

UniqueFd Listen(const std::string &path)
{
    UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket) {
        ThrowLastFailure("socket");
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    RemoveStaleSocket(path);
    // The mode must be right from the first moment on.
    const UmaskScope umask(kSocketUmask);
    if (::bind(socket.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        ::listen(socket.Get(), SOMAXCONN) != 0) {
        ThrowLastFailure(path);
    }
    return socket;
}

int Milliseconds(Connection::Clock::duration left)
{
    return static_cast<int>(std::max<std::int64_t>(std::chrono::ceil<std::chrono::milliseconds>(left).count(), 0));
}

} // namespace

ControlSocket::ControlSocket(std::string path, Handler handler)
    : path_(std::move(path)), handler_(std::move(handler)), listener_(Listen(path_))
{
}

ControlSocket::~ControlSocket()
{
    ::unlink(path_.c_str());
}

void ControlSocket::Watch(int fd, std::function<bool()> onEvent)
{
    watched_.push_back({fd, std::move(onEvent)});
}

void ControlSocket::Serve()
{
    while (ServeOnce()) {
    }
    FlushReplies();
}

// One request at most, so that a signal is seen between two of them.
bool ControlSocket::ServeOnce()
{
    DropFinished();
    std::vector<pollfd> polled = PollList(Clock::now());
    if (::poll(polled.data(), polled.size(), PollTimeout(Clock::now())) < 0) {
        if (errno != EINTR) {
            ThrowLastFailure("poll");
        }
        return true;
    }
    const auto now = Clock::now();
    const std::span<const pollfd> events(polled);
    if (!RunWatchers(events.first(watched_.size()))) {
        return false;
    }
    AdvanceAll(events.subspan(watched_.size() + 1), now);
    DropStalled(now);
    if (events[watched_.size()].revents != 0) {
        MakeRoom();
        AcceptAll(now);
    }
    DismissOversized(now);
    HandleNext();
    return true;
}

// The watched descriptors, the listener, the connections.
std::vector<pollfd> ControlSocket::PollList(Clock::time_point now) const
{
    std::vector<pollfd> polled;
    polled.reserve(watched_.size() + 1 + connections_.size());
    for (const Watched &watched : watched_) {
        polled.push_back({watched.fd, POLLIN, 0});
    }
    // poll passes over a negative descriptor: later peers wait in the backlog.
    polled.push_back({Accepts(now) ? listener_.Get() : -1, POLLIN, 0});
    // Nor is one that waits for its answer looked at: that its peer has gone changes nothing.
    for (const Connection &connection : connections_) {
        polled.push_back({connection.IsInHand() ? -1 : connection.Fd(), connection.Wanted(), 0});
    }
    return polled;
}

bool ControlSocket::Accepts(Clock::time_point now) const
{
    return now >= acceptAfter_ && (!IsFull() || std::ranges::any_of(connections_, &Connection::Idle));
}

bool ControlSocket::IsFull() const
{
    return connections_.size() >= kConnectionsMax;
}

int ControlSocket::PollTimeout(Clock::time_point now) const
{
    if (std::ranges::any_of(connections_, &Connection::HasFrame)) {
        return 0;
    }
    std::optional<Clock::time_point> next;
    if (now < acceptAfter_) {
        next = acceptAfter_;
    }
    for (const Connection &connection : connections_) {
        const auto deadline = connection.Deadline();
        if (deadline && (!next || *deadline < *next)) {
            next = deadline;
        }
    }
    return next ? Milliseconds(*next - now) : -1;
}

bool ControlSocket::RunWatchers(std::span<const pollfd> events) const
{
    bool goesOn = true;
    for (std::size_t i = 0; i < events.size(); ++i) {
        if (events[i].revents != 0) {
            goesOn = watched_[i].onEvent() && goesOn;
        }
    }
    return goesOn;
}

// Peers that say nothing must not keep out those that would. One gives way at a time: what the others have sent
// meanwhile is read before the next does. The first one is the one that has been silent longest.
void ControlSocket::MakeRoom()
{
    if (!IsFull()) {
        return;
    }
    const auto silent = [](const Connection &connection) { return connection.Idle() && !connection.Served(); };
    auto leaving = std::ranges::find_if(connections_, silent);
    if (leaving == connections_.end()) {
        leaving = std::ranges::find_if(connections_, &Connection::Idle);
    }
    if (leaving != connections_.end()) {
        Log(LogLevel::kNotice, "control socket: process %d says nothing and gives way to another", leaving->Peer());
        connections_.erase(leaving);
    }
}

void ControlSocket::AcceptAll(Clock::time_point now)
{
    while (!IsFull() && now >= acceptAfter_) {
        UniqueFd socket(::accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (socket) {
            Admit(std::move(socket));
        } else if (errno == EAGAIN) {
            return;
        } else if (errno != EINTR && errno != ECONNABORTED) {
            Log(LogLevel::kWarning, "control socket: cannot accept: %s", std::strerror(errno));
            acceptAfter_ = now + kAcceptPause;
        }
    }
}

void ControlSocket::Admit(UniqueFd socket)
{
    ucred peer{};
    socklen_t size = sizeof peer;
    if (::getsockopt(socket.Get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
        Log(LogLevel::kWarning, "control socket: a peer without credentials is dropped: %s", std::strerror(errno));
        return;
    }
    if (peer.uid != 0 && peer.uid != ::geteuid()) {
        Log(LogLevel::kWarning, "control socket: process %d of user %u may not connect and is dropped", peer.pid,
            peer.uid);
        return;
    }
    connections_.emplace_back(std::move(socket), peer.pid);
}

void ControlSocket::AdvanceAll(std::span<const pollfd> events, Clock::time_point now)
{
    for (std::size_t i = 0; i < events.size(); ++i) {
        if (events[i].revents != 0) {
            connections_[i].Advance(now);
        }
    }
}

void ControlSocket::DropFinished()
{
    std::erase_if(connections_, [](const Connection &connection) {
        if (connection.Finished() && connection.CutShort()) {
            Log(LogLevel::kWarning, "control socket: process %d left in the middle of a frame", connection.Peer());
        }
        return connection.Finished();
    });
}

void ControlSocket::DropStalled(Clock::time_point now)
{
    std::erase_if(connections_, [&](const Connection &connection) {
        const bool stalled = !connection.Finished() && connection.Deadline() && *connection.Deadline() <= now;
        if (stalled) {
            Log(LogLevel::kWarning, "control socket: process %d stalls and is dropped", connection.Peer());
        }
        return stalled;
    });
}

void ControlSocket::DismissOversized(Clock::time_point now)
{
    for (Connection &connection : connections_) {
        if (connection.Oversized()) {
            const std::string text = "a frame holds " + std::to_string(control::kFrameMax) + " bytes at most";
            Log(LogLevel::kWarning, "control socket: process %d announces too much: %s", connection.Peer(),
                text.c_str());
            connection.Dismiss(PackAnswer(Refusal(-EMSGSIZE, text)), now);
        }
    }
}

void ControlSocket::HandleNext()
{
    const auto next = std::ranges::find_if(connections_, &Connection::HasFrame);
    if (next == connections_.end()) {
        return;
    }
    const auto started = Clock::now();
    next->TakeInHand();
    Handle(*next);
    const auto took = Clock::now() - started;
    for (Connection &connection : connections_) {
        connection.Postpone(took);
    }
    // The one just served comes last next time.
    std::rotate(next, next + 1, connections_.end());
}

void ControlSocket::Handle(const Connection &connection)
{
    const int fd = connection.Fd();
    const int result = WithoutExceptions([&] {
        handler_(connection.Frame(), [this, fd](const Answer &answer) { Reply(fd, answer); });
        return 0;
    });
    if (result < 0) {
        Log(LogLevel::kError, "control socket: a request failed: %s", std::strerror(-result));
        Reply(fd, Refusal(result, ""));
    }
}

// While its request is in hand, a connection stays, and so does the number of its descriptor.
void ControlSocket::Reply(int fd, const Answer &answer)
{
    const auto asking = std::ranges::find_if(
        connections_, [fd](const Connection &connection) { return connection.Fd() == fd && connection.IsInHand(); });
    if (asking != connections_.end()) {
        asking->Reply(PackAnswer(answer), Clock::now());
    }
}

void ControlSocket::FlushReplies()
{
    const auto deadline = Clock::now() + kFlushPatience;
    for (;;) {
        std::erase_if(connections_, [](const Connection &connection) {
            return connection.Finished() || !connection.HasUnsentReply();
        });
        const auto now = Clock::now();
        if (connections_.empty() || now >= deadline) {
            return;
        }
        std::vector<pollfd> polled;
        for (const Connection &connection : connections_) {
            polled.push_back({connection.Fd(), POLLOUT, 0});
        }
        if (::poll(polled.data(), polled.size(), Milliseconds(deadline - now)) > 0) {
            AdvanceAll(polled, Clock::now());
        }
    }
}

} // namespace kavel::agent

#include "socket/control_socket.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <optional>
#include <system_error>
#include <tuple>
#include <utility>

#include "base/procfs.h"
#include "failure.h"
#include "frame.h"
#include "log.h"
#include "printable.h"

namespace kavel::agent {
namespace {

constexpr std::size_t kClientsMax = 64;
constexpr std::chrono::seconds kAcceptPause{1}; // after a failure, such as a lack of descriptors
constexpr std::chrono::seconds kDrainTimeout{1};
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

UniqueFd Listen(const std::string &path, const AdmittedPeers &admitted)
{
    UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket) {
        ThrowLastErrno("socket");
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    RemoveStaleSocket(path);
    // The socket must not be accessible to others at any moment.
    const UmaskScope umask(kSocketUmask);
    const FileGroupScope group(admitted.readers);
    if (::bind(socket.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        ::listen(socket.Get(), SOMAXCONN) != 0) {
        ThrowLastErrno(path);
    }
    OpenSocketFile(path, admitted);
    return socket;
}

std::string DescriptionOf(const Peer &peer)
{
    return "pid " + std::to_string(peer.pid) + ", uid " + std::to_string(peer.user) + " (" +
           Printable(InspectProcess(peer.pid).name) + ")";
}

} // namespace

ControlSocket::ControlSocket(EventLoop &loop, std::string path, Handler handler, AdmittedPeers admitted,
                             AccessRule rule)
    : loop_(loop), path_(std::move(path)), handler_(std::move(handler)), listener_(Listen(path_, admitted)),
      bound_(IdentityOfFile(path_)), admitted_(std::move(admitted)), rule_(std::move(rule)),
      budget_(kReceivedBytesMax - kClientsMax * ReceiveBudget::kOwnBytes), usersBudget_(kUsersBytesMax),
      accept_(loop.AddIo(listener_.Get(), EPOLLIN, [this](std::uint32_t /*events*/) { Accept(); })),
      resumeAccepting_(loop.AddTimer([this] {
          isAcceptPaused_ = false;
          UpdateListener();
      })),
      deadlines_(loop.AddTimer([this] { CloseStalledClients(); })),
      nextFrame_(loop.AddDeferred([this] { HandleNextFrame(); }))
{
}

// The kernel keeps the inode of a bound socket until the socket is closed, so no other file has its number now.
ControlSocket::~ControlSocket()
{
    if (IdentityOfFile(path_) == bound_) {
        ::unlink(path_.c_str());
    }
}

bool ControlSocket::IsFull() const
{
    return clients_.size() >= kClientsMax;
}

// At most one client is closed per call to admit any other, and clients that are turned away count, so that the others
// are served in between.
void ControlSocket::Accept()
{
    if (IsFull()) {
        CloseIdleClient([](const Client & /*client*/) { return true; }, kClientsMax);
    }
    for (std::size_t accepted = 0; accepted < kClientsMax && !IsFull(); ++accepted) {
        UniqueFd socket(::accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (socket) {
            Admit(std::move(socket));
        } else if (errno == EAGAIN) {
            break;
        } else if (errno != EINTR && errno != ECONNABORTED) {
            Log(LogLevel::kWarning, "control socket: cannot accept: %s", std::strerror(errno));
            isAcceptPaused_ = true;
            resumeAccepting_.ArmTimer(Clock::now() + kAcceptPause);
            break;
        }
    }
    UpdateListener();
}

// A reader is closed before a user, and a user before the owner; then a client that never sent a request before one
// that did, and the one that is idle longest before others.
std::map<ControlSocket::ClientId, ControlSocket::Client>::iterator ControlSocket::FindIdleClient(const Sharing &isAmong)
{
    const auto isCandidate = [&isAmong](const Client &client) { return client.connection.IsIdle() && isAmong(client); };
    const auto rank = [&](const auto &entry) {
        const Client &client = entry.second;
        return std::tuple(!isCandidate(client), client.Kind(), client.connection.WasServed(),
                          client.connection.ActiveAt());
    };
    const auto found = std::ranges::min_element(clients_, {}, rank);
    return found != clients_.end() && isCandidate(found->second) ? found : clients_.end();
}

// Whether one was closed.
bool ControlSocket::CloseIdleClient(const Sharing &isAmong, std::size_t most)
{
    for (auto found = FindIdleClient(isAmong); found != clients_.end(); found = FindIdleClient(isAmong)) {
        auto &[id, client] = *found;
        client.connection.Advance(loop_.IdleTime()); // it may have sent something that was not read yet
        if (client.connection.IsIdle()) {
            Log(client.Kind() == ClientKind::kOwner ? LogLevel::kNotice : LogLevel::kDebug,
                "control socket: closing the idle connection of process %d: all %zu are in use",
                client.connection.Peer(), most);
            clients_.erase(found);
            return true;
        }
        Update(id);
    }
    return false;
}

// Whether there are fewer than `most` now.
bool ControlSocket::MakeRoom(const Sharing &isAmong, std::size_t most)
{
    const auto count = std::ranges::count_if(clients_, [&](const auto &entry) { return isAmong(entry.second); });
    return static_cast<std::size_t>(count) < most || CloseIdleClient(isAmong, most);
}

// Those who are turned away must not be able to fill the log.
bool ControlSocket::HasRoomFor(ClientKind kind, uid_t user)
{
    const auto isOfKind = [kind](const Client &client) { return client.Kind() == kind; };
    std::string crowd;
    if (kind == ClientKind::kReader && !MakeRoom(isOfKind, kReadersMax)) {
        crowd = std::to_string(kReadersMax) + " readers";
    } else if (kind == ClientKind::kUser) {
        const auto isOfUser = [&](const Client &client) { return isOfKind(client) && client.user == user; };
        if (!MakeRoom(isOfUser, kUserMax)) {
            crowd = std::to_string(kUserMax) + " clients of user " + std::to_string(user);
        } else if (!MakeRoom(isOfKind, kUsersMax)) {
            crowd = std::to_string(kUsersMax) + " clients of users";
        }
    }
    if (crowd.empty()) {
        turnedAway_.erase(kind);
    } else if (turnedAway_.insert(kind).second) {
        Log(LogLevel::kWarning, "control socket: %s are connected; more are turned away", crowd.c_str());
    }
    return crowd.empty();
}

void ControlSocket::Admit(UniqueFd socket)
{
    Peer peer;
    try {
        peer = PeerOf(socket.Get());
    } catch (const std::system_error &failure) {
        Log(LogLevel::kWarning, "control socket: rejected a client: %s", failure.what());
        return;
    }
    const Access access = rule_(peer, admitted_);
    if (access == Access::kNone) {
        Log(LogLevel::kWarning, "control socket: rejected process %d: user %u may not connect", peer.pid, peer.user);
        return;
    }
    const ClientKind kind = KindOf(access);
    if (!HasRoomFor(kind, peer.user)) {
        return;
    }
    const ClientId id = ++lastId_;
    EventSource source =
        loop_.AddIo(socket.Get(), EPOLLIN, [this, id](std::uint32_t /*events*/) { ProcessClient(id); });
    const bool appliesMessages = HasAny(access, Access::kFull | Access::kApply);
    const std::size_t frameMax = appliesMessages ? control::kFrameMax : kShortFrameMax;
    ReceiveBudget &budget = kind == ClientKind::kUser ? usersBudget_ : budget_;
    clients_.emplace(id, Client{Connection(std::move(socket), peer.pid, loop_.IdleTime(), budget, frameMax),
                                DescriptionOf(peer), peer.user, access, std::move(source)});
}

void ControlSocket::ProcessClient(ClientId id)
{
    Connection &connection = clients_.at(id).connection;
    if (connection.IsBusy() && !onDrained_) {
        // Only a hang-up is reported meanwhile. The request goes on, but nobody waits for its answer: the slot is free.
        clients_.erase(id);
        UpdateListener();
        return;
    }
    connection.Advance(loop_.IdleTime());
    if (onDrained_) {
        UpdateDraining(id);
        return;
    }
    if (connection.HasFrame()) {
        ProcessFrame(id);
    }
    Update(id);
}

void ControlSocket::ProcessFrame(ClientId id)
{
    Client &client = clients_.at(id);
    ReceivedFrame frame = client.connection.BeginRequest();
    frame.sender = client.name;
    frame.access = client.access;
    const RequestShare share{client.Kind(), client.user, frame.bytes.size()};
    if (auto objection = unanswered_.Objection(share)) {
        SendAnswer(id, RefusalForNow(-EBUSY, *std::move(objection)));
        return;
    }
    unanswered_.Begin(share);
    handler_(std::move(frame), [this, id, share, isPending = std::make_shared<bool>(true)](const Answer &answer) {
        if (std::exchange(*isPending, false)) {
            unanswered_.End(share);
        }
        SendAnswer(id, answer);
    });
}

// A frame that was received together with the one before it: no event of its socket will announce it.
void ControlSocket::HandleNextFrame()
{
    const ClientId id = ready_.front();
    ready_.pop_front();
    if (!ready_.empty()) {
        nextFrame_.Enable();
    }
    if (clients_.contains(id) && clients_.at(id).connection.HasFrame()) {
        ProcessFrame(id);
        Update(id);
    }
}

// A client may have disconnected while its request was handled.
void ControlSocket::SendAnswer(ClientId id, const Answer &answer)
{
    const auto client = clients_.find(id);
    if (client != clients_.end() && client->second.connection.IsBusy()) {
        client->second.connection.Reply(PackAnswer(answer), loop_.IdleTime());
        Update(id);
    }
}

void ControlSocket::Dismiss(Connection &connection, std::int32_t error, const std::string &text) const
{
    Log(LogLevel::kWarning, "control socket: process %d %s: %s", connection.Peer(),
        error == EMSGSIZE ? "announced a longer frame" : "is dismissed", text.c_str());
    const Answer answer = error == ENOBUFS ? RefusalForNow(-error, text) : Refusal(-error, text);
    connection.Dismiss(PackAnswer(answer), loop_.IdleTime());
}

// Brings everything that depends on the client's state up to date.
void ControlSocket::Update(ClientId id)
{
    const auto found = clients_.find(id);
    if (found == clients_.end()) {
        return;
    }
    if (onDrained_) {
        UpdateDraining(id);
        return;
    }
    Client &client = found->second;
    Connection &connection = client.connection;
    if (connection.ExceedsBudget()) {
        const bool isUser = client.Kind() == ClientKind::kUser;
        Dismiss(connection, ENOBUFS,
                std::string("the unfinished frames of all ") + (isUser ? "users" : "clients") +
                    " would take more than " + std::to_string(isUser ? kUsersBytesMax : kReceivedBytesMax) + " bytes");
    } else if (connection.IsOversized() && !connection.IsBusy() && !connection.HasUnsentReply()) {
        // Not before the frame in front of it is answered.
        Dismiss(connection, EMSGSIZE, "a frame holds " + std::to_string(connection.FrameMax()) + " bytes at most");
    }
    if (connection.IsFinished()) {
        if (connection.IsTruncated()) {
            Log(LogLevel::kWarning, "control socket: process %d disconnected in the middle of a frame",
                connection.Peer());
        }
        clients_.erase(found);
    } else {
        if (connection.HasFrame() && std::ranges::find(ready_, id) == ready_.end()) {
            ready_.push_back(id);
            nextFrame_.Enable();
        }
        // epoll reports a hang-up even if it is not asked for it: it is of interest while a request is handled.
        client.source.SetIoEvents(connection.WantedEvents());
        connection.WantedEvents() != 0 || connection.IsBusy() ? client.source.Enable() : client.source.Disable();
    }
    UpdateListener();
    UpdateDeadlineTimer();
}

// While all slots are in use and no client is idle, later clients wait in the backlog.
void ControlSocket::UpdateListener()
{
    const auto isIdle = [](const auto &entry) { return entry.second.connection.IsIdle(); };
    const bool accepts = !onDrained_ && !isAcceptPaused_ && (!IsFull() || std::ranges::any_of(clients_, isIdle));
    accepts ? accept_.Enable() : accept_.Disable();
}

void ControlSocket::UpdateDeadlineTimer()
{
    std::optional<Clock::time_point> next;
    for (const auto &[id, client] : clients_) {
        const auto deadline = client.connection.Deadline();
        if (deadline && (!next || *deadline < *next)) {
            next = deadline;
        }
    }
    if (next) {
        deadlines_.ArmTimer(Clock::now() + (*next - loop_.IdleTime()));
    } else {
        deadlines_.Disable();
    }
}

void ControlSocket::CloseStalledClients()
{
    const auto now = loop_.IdleTime();
    std::erase_if(clients_, [now](const auto &entry) {
        const Connection &connection = entry.second.connection;
        const bool isStalled = connection.Deadline() && *connection.Deadline() <= now;
        if (isStalled) {
            Log(LogLevel::kWarning, "control socket: process %d stalled; its connection is closed", connection.Peer());
        }
        return isStalled;
    });
    UpdateListener();
    UpdateDeadlineTimer();
}

void ControlSocket::Drain(std::function<void()> onDrained)
{
    onDrained_ = std::move(onDrained);
    deadlines_.Disable();
    nextFrame_.Disable();
    UpdateListener();
    drainTimer_ = loop_.AddTimer([this] {
        if (!std::exchange(isDrained_, true)) {
            onDrained_();
        }
    });
    drainTimer_.ArmTimer(Clock::now() + kDrainTimeout);
    for (auto at = clients_.begin(); at != clients_.end();) {
        UpdateDraining((at++)->first);
    }
    if (clients_.empty()) {
        drainTimer_.ArmTimer(Clock::now());
    }
}

void ControlSocket::UpdateDraining(ClientId id)
{
    Client &client = clients_.at(id);
    if (!client.connection.IsFinished() && client.connection.HasUnsentReply()) {
        client.source.SetIoEvents(EPOLLOUT);
        client.source.Enable();
        return;
    }
    clients_.erase(id);
    if (clients_.empty()) {
        drainTimer_.ArmTimer(Clock::now());
    }
}

} // namespace kavel::agent

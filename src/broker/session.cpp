#include "session.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <deque>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <system_error>
#include <utility>

#include "mqtt_client.h"
#include "unique_fd.h"

namespace kavel::broker {

namespace {

// From the beginning of an attempt until the broker has answered the subscriptions.
constexpr std::chrono::seconds kAttemptMax{15};
constexpr std::chrono::seconds kStopMax{2};
constexpr std::chrono::seconds kTendInterval{1};
// Publications that the broker has not acknowledged. The others wait: libmosquitto numbers them with 16 bits.
constexpr std::size_t kUnacknowledgedMax = 1000;
constexpr int kFirstRefusalCode = 128;

int SocketError(int socket)
{
    int error = 0;
    socklen_t size = sizeof error;
    return getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

bool HasPeer(int socket)
{
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    return getpeername(socket, reinterpret_cast<sockaddr *>(&address), &size) == 0;
}

} // namespace

// The handlers of the loop hold a reference to this object while they run: an event may destroy the session.
class Session::Connection final : public std::enable_shared_from_this<Connection>, private MqttClient::Handler {
  public:
    Connection(EventLoop &loop, Options options, Events events);
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;
    ~Connection() override = default;

    void Start();
    void Stop(std::function<void()> onDone);
    // The session is destroyed: no event may be told from now on.
    void End() { isOver_ = true; }
    [[nodiscard]] bool IsConnected() const { return phase_ == Phase::kConnected; }
    [[nodiscard]] std::optional<std::uint64_t> Publish(const Message &message);
    void Subscribe(const std::vector<std::string> &filters);
    void Unsubscribe(const std::vector<std::string> &filters);

  private:
    enum class Phase {
        kIdle,        // not started, or stopped
        kWaiting,     // for the next attempt
        kConnecting,  // until the broker has accepted the connection
        kSubscribing, // until it has answered the subscriptions
        kConnected,
        kStopping,
    };

    void OnAccepted() override;
    void OnSubscribed(int request, std::span<const int> codes) override;
    void OnPublished(int request, const std::string &problem) override;
    void OnMessage(Message message) override;

    // Handlers of the loop.
    void OnSocket(std::uint32_t events);
    void OnTend();
    void OnPhaseTimer();
    void OnDeferred();

    void Attempt();
    // Whether the socket, which was connecting and has an event now, is connected. If not, the client has failed.
    bool ExamineTcp();
    void EnterConnected();
    // Acts on the state of the client after a call of it. In a handler of the loop alone, outside the client's
    // handlers.
    void Proceed();
    // The same from a function of Session, or from one of the client's handlers.
    void ProceedLater();
    void UpdateIo();
    void Fail(const std::string &why);
    void FinishStop();
    void Drop();
    void Submit(std::uint64_t publication, const Message &message);
    void SubmitWaiting();
    template <typename... Argument>
    void Tell(const std::function<void(Argument...)> &event, std::type_identity_t<Argument>... arguments);

    EventLoop &loop_;
    const Options options_;
    const Events events_;
    Backoff backoff_;
    std::chrono::milliseconds delay_{}; // before the current attempt
    EventLoop::Clock::time_point connectedSince_;
    Phase phase_ = Phase::kIdle;
    bool isOver_ = false;
    bool isTcpConnected_ = false;
    bool onlyIpv4_ = false; // in the next attempt
    std::function<void()> onStopped_;
    std::uint64_t lastPublication_ = 0;
    std::map<int, std::uint64_t> unacknowledged_;               // publications by request
    std::deque<std::pair<std::uint64_t, Message>> waiting_;     // that the client was not given yet
    std::vector<std::pair<std::uint64_t, std::string>> unsent_; // with the problem, to be told
    std::map<int, std::vector<std::string>> subscriptions_;     // filters by request, until they are answered
    std::unique_ptr<MqttClient> client_;
    UniqueFd socket_; // of the client, once more
    EventSource io_;
    EventSource phaseTimer_; // ends the waiting, the attempt or the stopping
    EventSource tendTimer_;
    EventSource deferred_;
};

Session::Connection::Connection(EventLoop &loop, Options options, Events events)
    : loop_(loop), options_(std::move(options)), events_(std::move(events)),
      phaseTimer_(loop.AddTimer([this] { OnPhaseTimer(); })), tendTimer_(loop.AddTimer([this] { OnTend(); })),
      deferred_(loop.AddDeferred([this] { OnDeferred(); }))
{
    // What is wrong with the options is said here, and not at the first attempt.
    (void)MqttClient(options_, *this);
}

template <typename... Argument>
void Session::Connection::Tell(const std::function<void(Argument...)> &event,
                               std::type_identity_t<Argument>... arguments)
{
    if (event && !isOver_) {
        event(std::forward<Argument>(arguments)...);
    }
}

void Session::Connection::Start()
{
    if (phase_ == Phase::kIdle) {
        phase_ = Phase::kWaiting;
        phaseTimer_.ArmTimer(EventLoop::Clock::now());
    }
}

void Session::Connection::Attempt()
{
    phase_ = Phase::kConnecting;
    phaseTimer_.ArmTimer(EventLoop::Clock::now() + kAttemptMax);
    isTcpConnected_ = false;
    try {
        client_ = std::make_unique<MqttClient>(options_, static_cast<MqttClient::Handler &>(*this));
    } catch (const SessionError &error) {
        return Fail(error.what());
    }
    client_->Connect(onlyIpv4_);
    if (client_->HasFailed()) {
        return Fail(client_->Problem());
    }
    // libmosquitto closes its descriptor of the socket when it likes, but that of a source must be open until its end.
    socket_ = UniqueFd(fcntl(client_->Socket(), F_DUPFD_CLOEXEC, 0));
    if (!socket_ || fcntl(client_->Socket(), F_SETFD, FD_CLOEXEC) != 0) {
        return Fail("cannot connect: " + std::generic_category().message(errno));
    }
    isTcpConnected_ = HasPeer(socket_.Get());
    io_ = loop_.AddIo(socket_.Get(), EPOLLIN, [this](std::uint32_t events) { OnSocket(events); });
    tendTimer_.ArmTimer(EventLoop::Clock::now() + kTendInterval);
    UpdateIo();
}

void Session::Connection::OnSocket(std::uint32_t events)
{
    const std::shared_ptr<Connection> self = shared_from_this();
    if (isTcpConnected_ || ExamineTcp()) {
        if ((events & ~static_cast<std::uint32_t>(EPOLLOUT)) != 0) {
            client_->Read();
        }
        if ((events & EPOLLOUT) != 0 && !client_->HasFailed()) {
            client_->Write();
        }
    }
    Proceed();
}

bool Session::Connection::ExamineTcp()
{
    if (const int error = SocketError(socket_.Get()); error != 0) {
        client_->SetProblem("cannot connect: " + std::generic_category().message(error));
        return false;
    }
    isTcpConnected_ = true;
    return true;
}

void Session::Connection::OnTend()
{
    const std::shared_ptr<Connection> self = shared_from_this();
    tendTimer_.ArmTimer(EventLoop::Clock::now() + kTendInterval);
    client_->Tend();
    Proceed();
}

void Session::Connection::OnPhaseTimer()
{
    const std::shared_ptr<Connection> self = shared_from_this();
    switch (phase_) {
    case Phase::kWaiting:
        return Attempt();
    case Phase::kConnecting:
    case Phase::kSubscribing:
        return Fail(isTcpConnected_ ? "the broker has not answered in time" : "cannot connect: timed out");
    case Phase::kStopping:
        return FinishStop();
    default:
        return;
    }
}

void Session::Connection::OnDeferred()
{
    const std::shared_ptr<Connection> self = shared_from_this();
    for (const auto &[publication, problem] : std::exchange(unsent_, {})) {
        Tell(events_.published, publication, problem);
    }
    Proceed();
}

void Session::Connection::Proceed()
{
    if (isOver_ || !client_) {
        return;
    }
    if (!client_->HasFailed()) {
        return UpdateIo();
    }
    if (phase_ == Phase::kStopping) {
        return FinishStop();
    }
    Fail(client_->Problem());
}

void Session::Connection::ProceedLater()
{
    if (client_->HasFailed()) {
        deferred_.Enable();
    } else {
        UpdateIo();
    }
}

void Session::Connection::UpdateIo()
{
    io_.SetIoEvents(client_->WantsWrite() ? EPOLLIN | EPOLLOUT : EPOLLIN);
}

void Session::Connection::Drop()
{
    io_ = {};
    socket_ = UniqueFd();
    phaseTimer_.Disable();
    tendTimer_.Disable();
    client_.reset();
    unacknowledged_.clear();
    waiting_.clear();
    unsent_.clear();
    subscriptions_.clear();
}

void Session::Connection::Fail(const std::string &why)
{
    const EventLoop::Clock::time_point now = EventLoop::Clock::now();
    // Of two clients with one name each takes the connection of the other: the short ones are no success.
    if (phase_ == Phase::kConnected && now - connectedSince_ >= 2 * delay_) {
        backoff_.Reset();
    }
    // libmosquitto tries only the first address of a host, so the families of addresses take turns until one connects.
    onlyIpv4_ = isTcpConnected_ ? onlyIpv4_ : !onlyIpv4_;
    Drop();
    phase_ = Phase::kWaiting;
    delay_ = backoff_.Next();
    phaseTimer_.ArmTimer(now + delay_);
    Tell(events_.closed, why);
}

void Session::Connection::Stop(std::function<void()> onDone)
{
    onStopped_ = std::move(onDone);
    const Phase before = std::exchange(phase_, Phase::kStopping);
    if (before == Phase::kStopping) {
        return;
    }
    unacknowledged_.clear();
    waiting_.clear();
    unsent_.clear();
    if (before == Phase::kConnected || before == Phase::kSubscribing) {
        phaseTimer_.ArmTimer(EventLoop::Clock::now() + kStopMax);
        client_->Disconnect();
        return ProceedLater();
    }
    Drop();
    phaseTimer_.ArmTimer(EventLoop::Clock::now());
}

void Session::Connection::FinishStop()
{
    Drop();
    phase_ = Phase::kIdle;
    backoff_.Reset();
    delay_ = {};
    Tell(std::exchange(onStopped_, nullptr));
}

void Session::Connection::OnAccepted()
{
    phase_ = Phase::kSubscribing;
    options_.filters.empty() ? EnterConnected() : Subscribe(options_.filters);
}

void Session::Connection::EnterConnected()
{
    phase_ = Phase::kConnected;
    connectedSince_ = EventLoop::Clock::now();
    phaseTimer_.Disable();
    Tell(events_.connected);
}

void Session::Connection::OnSubscribed(int request, std::span<const int> codes)
{
    const auto subscription = subscriptions_.extract(request);
    if (subscription.empty()) {
        return;
    }
    const std::vector<std::string> &filters = subscription.mapped();
    for (std::size_t i = 0; i < std::min(filters.size(), codes.size()); ++i) {
        if (codes[i] >= kFirstRefusalCode) {
            client_->SetProblem("the broker refuses the subscription to " + filters[i] + ": " +
                                mosquitto_reason_string(codes[i]));
            return;
        }
    }
    if (phase_ == Phase::kSubscribing) {
        EnterConnected();
    }
}

// A broker may send the messages of a subscription before it has answered it.
void Session::Connection::OnMessage(Message message)
{
    if (phase_ == Phase::kSubscribing) {
        EnterConnected();
    }
    if (phase_ == Phase::kConnected) {
        Tell(events_.received, std::move(message));
    }
}

void Session::Connection::OnPublished(int request, const std::string &problem)
{
    const auto publication = unacknowledged_.extract(request);
    if (publication.empty()) {
        return;
    }
    SubmitWaiting();
    Tell(events_.published, publication.mapped(), problem);
}

std::optional<std::uint64_t> Session::Connection::Publish(const Message &message)
{
    if (phase_ != Phase::kConnected || client_->HasFailed()) {
        return std::nullopt;
    }
    const std::uint64_t publication = ++lastPublication_;
    if (unacknowledged_.size() < kUnacknowledgedMax) {
        Submit(publication, message);
    } else {
        waiting_.emplace_back(publication, message);
    }
    return publication;
}

void Session::Connection::SubmitWaiting()
{
    while (!waiting_.empty() && unacknowledged_.size() < kUnacknowledgedMax && !client_->HasFailed()) {
        const auto [publication, message] = std::move(waiting_.front());
        waiting_.pop_front();
        Submit(publication, message);
    }
}

void Session::Connection::Submit(std::uint64_t publication, const Message &message)
{
    const MqttClient::Submitted submitted = client_->Publish(message);
    if (submitted.request) {
        unacknowledged_.emplace(*submitted.request, publication);
    } else if (!submitted.problem.empty()) {
        unsent_.emplace_back(publication, submitted.problem);
        deferred_.Enable();
    }
    ProceedLater();
}

void Session::Connection::Subscribe(const std::vector<std::string> &filters)
{
    int request = 0;
    client_->Subscribe(filters, request);
    if (!client_->HasFailed()) {
        subscriptions_[request] = filters;
    }
    ProceedLater();
}

void Session::Connection::Unsubscribe(const std::vector<std::string> &filters)
{
    client_->Unsubscribe(filters);
    ProceedLater();
}

Session::Session(EventLoop &loop, Options options, Events events)
    : connection_(std::make_shared<Connection>(loop, std::move(options), std::move(events)))
{
}

Session::~Session()
{
    connection_->End();
}

void Session::Start()
{
    connection_->Start();
}

void Session::Stop(std::function<void()> onDone)
{
    connection_->Stop(std::move(onDone));
}

bool Session::IsConnected() const
{
    return connection_->IsConnected();
}

std::optional<std::uint64_t> Session::Publish(const Message &message)
{
    return connection_->Publish(message);
}

void Session::Subscribe(const std::vector<std::string> &filters)
{
    if (IsConnected()) {
        connection_->Subscribe(filters);
    }
}

void Session::Unsubscribe(const std::vector<std::string> &filters)
{
    if (IsConnected()) {
        connection_->Unsubscribe(filters);
    }
}

} // namespace kavel::broker

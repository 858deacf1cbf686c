#include "agent_line.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <span>
#include <system_error>
#include <utility>

#include "frame.h"

namespace kavel::link {

namespace {

constexpr std::size_t kReadSize = 65536;

struct ReleaseReply {
    void operator()(Kavel__Reply *reply) const { kavel__reply__free_unpacked(reply, nullptr); }
};

std::string ErrorText(int error)
{
    return std::generic_category().message(error);
}

bool IsNotReady(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

// 0 or the errno. A stream socket of this kind is connected at once or not at all.
int ConnectSocket(int socket, const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        return ENAMETOOLONG;
    }
    std::ranges::copy(path, address.sun_path);
    return ::connect(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ? 0 : errno;
}

std::vector<std::uint8_t> FrameOf(const Kavel__Request &request)
{
    const std::size_t size = kavel__request__get_packed_size(&request);
    const auto header = control::EncodeFrameLength(size);
    std::vector<std::uint8_t> frame(header.size() + size);
    std::ranges::copy(header, frame.begin());
    kavel__request__pack(&request, frame.data() + header.size());
    return frame;
}

} // namespace

AgentLine::AgentLine(EventLoop &loop, std::string path, std::chrono::milliseconds answerMax)
    : loop_(loop), path_(std::move(path)), answerMax_(answerMax), timer_(loop.AddTimer([this] { OnTimer(); }))
{
}

void AgentLine::Start(Events events)
{
    events_ = std::move(events);
    timer_.ArmTimer(EventLoop::Clock::now());
}

// The answer arrives, or the time for it ends, in the loop.
void AgentLine::Send(const Kavel__Request &request)
{
    isBusy_ = true;
    out_ = FrameOf(request);
    sent_ = 0;
    io_.SetIoEvents(EPOLLIN | EPOLLOUT);
    timer_.ArmTimer(EventLoop::Clock::now() + answerMax_);
}

void AgentLine::OnTimer()
{
    if (socket_) {
        Close("no answer within " + std::to_string(std::chrono::ceil<std::chrono::seconds>(answerMax_).count()) + " s");
    } else {
        Connect();
    }
}

void AgentLine::Connect()
{
    socket_ = UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int error = socket_ ? ConnectSocket(socket_.Get(), path_) : errno;
    if (error != 0) {
        return Close("cannot connect to " + path_ + ": " + ErrorText(error));
    }
    io_ = loop_.AddIo(socket_.Get(), EPOLLIN, [this](std::uint32_t ready) { OnSocket(ready); });
    events_.connected();
}

void AgentLine::Close(const std::string &why)
{
    io_ = {};
    socket_ = {};
    isBusy_ = false;
    out_ = {};
    in_ = {};
    timer_.ArmTimer(EventLoop::Clock::now() + backoff_.Next());
    events_.closed(why);
}

void AgentLine::OnSocket(std::uint32_t ready)
{
    if ((ready & ~static_cast<std::uint32_t>(EPOLLOUT)) != 0) {
        return Read();
    }
    Write();
}

void AgentLine::Write()
{
    const auto rest = std::span(out_).subspan(sent_);
    const ssize_t size = ::send(socket_.Get(), rest.data(), rest.size(), MSG_NOSIGNAL);
    if (size < 0 && !IsNotReady(errno)) {
        return Close("the connection broke: " + ErrorText(errno));
    }
    sent_ += static_cast<std::size_t>(std::max<ssize_t>(size, 0));
    if (sent_ == out_.size()) {
        out_ = {};
        sent_ = 0;
        io_.SetIoEvents(EPOLLIN);
    }
}

// The buffer grows with what arrives, not with what a header announces.
void AgentLine::Read()
{
    std::array<std::uint8_t, kReadSize> bytes; // NOLINT(cppcoreguidelines-pro-type-member-init): recv fills it
    const ssize_t size = ::recv(socket_.Get(), bytes.data(), bytes.size(), 0);
    if (size < 0 && IsNotReady(errno)) {
        return;
    }
    if (size < 0) {
        return Close("the connection broke: " + ErrorText(errno));
    }
    if (size == 0) {
        return Close(isBusy_ ? "it closed the connection without an answer" : "it closed the connection");
    }
    in_.insert(in_.end(), bytes.begin(), bytes.begin() + size);
    TakeFrame();
}

void AgentLine::TakeFrame()
{
    if (in_.size() < control::kFrameHeaderSize) {
        return;
    }
    const std::size_t length = control::DecodeFrameLength(in_.data());
    if (length > control::kFrameMax) {
        return Close("it announces an answer of " + std::to_string(length) + " bytes, over the limit of " +
                     std::to_string(control::kFrameMax));
    }
    const auto received = std::span(in_).subspan(control::kFrameHeaderSize);
    if (received.size() < length) {
        return;
    }
    const std::unique_ptr<Kavel__Reply, ReleaseReply> reply(kavel__reply__unpack(nullptr, length, received.data()));
    if (!reply || received.size() > length || !isBusy_ || !out_.empty()) {
        return Close("its answer is malformed");
    }
    isBusy_ = false;
    in_ = {};
    timer_.Disable();
    backoff_.Reset();
    events_.answered(*reply);
}

} // namespace kavel::link

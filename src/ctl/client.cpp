#include "client.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <poll.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <utility>

#include "errors.h"
#include "frame.h"

namespace kavel::ctl {

namespace {

constexpr const char *kClosed = "the agent closed the connection without a reply";

std::string ErrnoText(int error)
{
    return std::generic_category().message(error);
}

// Whether the call is to be repeated: the socket was not ready, or a signal interrupted the call.
bool IsTransient(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

[[noreturn]] void ThrowConnectionError(int error)
{
    if (error == EPIPE || error == ECONNRESET) {
        throw AgentError(kClosed);
    }
    throw AgentError("the connection to the agent broke: " + ErrnoText(error));
}

int ConnectTo(int socket, const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        return ENAMETOOLONG;
    }
    std::ranges::copy(path, address.sun_path);
    return ::connect(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ? 0 : errno;
}

} // namespace

std::vector<std::uint8_t> PackRequest(const Kavel__Request &request)
{
    const std::size_t size = kavel__request__get_packed_size(&request);
    if (size > control::kFrameMax) {
        throw InputError("the request would take " + std::to_string(size) + " bytes, over the limit of " +
                         std::to_string(control::kFrameMax));
    }
    std::vector<std::uint8_t> bytes(size);
    kavel__request__pack(&request, bytes.data());
    return bytes;
}

Client Client::Connect(const std::string &path, std::chrono::milliseconds timeout)
{
    UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int error = socket ? ConnectTo(socket.Get(), path) : errno;
    if (error != 0) {
        throw AgentError("cannot reach the agent at " + path + ": " + ErrnoText(error));
    }
    return {std::move(socket), timeout};
}

ReplyPtr Client::Exchange(std::span<const std::uint8_t> request, Waiting waiting)
{
    const std::chrono::milliseconds noticeAfter = waiting.noticeAfter;
    Wait wait{Deadline(timeout_), Deadline(noticeAfter), std::move(waiting)};
    Send(control::EncodeFrameLength(request.size()), wait);
    Send(request, wait);

    std::array<std::uint8_t, control::kFrameHeaderSize> header{};
    Receive(header, wait);
    const std::size_t length = control::DecodeFrameLength(header.data());
    if (length > control::kFrameMax) {
        throw AgentError("the agent announced a reply of " + std::to_string(length) + " bytes, over the limit of " +
                         std::to_string(control::kFrameMax));
    }
    std::vector<std::uint8_t> bytes(length);
    Receive(bytes, wait);
    ReplyPtr reply(kavel__reply__unpack(nullptr, bytes.size(), bytes.data()));
    if (!reply) {
        throw AgentError("the agent's reply is malformed");
    }
    return reply;
}

void Client::WaitFor(short events, Wait &wait) const
{
    // A descriptor of -1 is passed over by poll().
    std::array<pollfd, 2> waited{{{socket_.Get(), events, 0}, {wait.other.interrupt, POLLIN, 0}}};
    while (true) {
        if (wait.end.HasPassed()) {
            std::ostringstream text;
            text << "the agent did not reply within " << std::chrono::duration<double>(timeout_).count() << " s";
            throw AgentError(text.str());
        }
        if (wait.other.notice && wait.notice.HasPassed()) {
            std::exchange(wait.other.notice, nullptr)();
        }
        const int untilEnd = wait.end.PollTimeout();
        const int timeout = wait.other.notice ? std::min(untilEnd, wait.notice.PollTimeout()) : untilEnd;
        const int ready = ::poll(waited.data(), waited.size(), timeout);
        if (ready < 0 && errno != EINTR) {
            ThrowConnectionError(errno);
        }
        if (ready > 0 && waited.front().revents != 0) {
            return;
        }
        if (ready > 0) {
            throw Interrupted();
        }
    }
}

void Client::Send(std::span<const std::uint8_t> bytes, Wait &wait) const
{
    while (!bytes.empty()) {
        WaitFor(POLLOUT, wait);
        const ssize_t put = ::send(socket_.Get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (put >= 0) {
            bytes = bytes.subspan(static_cast<std::size_t>(put));
        } else if (!IsTransient(errno)) {
            ThrowConnectionError(errno);
        }
    }
}

void Client::Receive(std::span<std::uint8_t> bytes, Wait &wait) const
{
    while (!bytes.empty()) {
        WaitFor(POLLIN, wait);
        const ssize_t got = ::recv(socket_.Get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
        if (got == 0) {
            throw AgentError(kClosed);
        }
        if (got > 0) {
            bytes = bytes.subspan(static_cast<std::size_t>(got));
        } else if (!IsTransient(errno)) {
            ThrowConnectionError(errno);
        }
    }
}

} // namespace kavel::ctl

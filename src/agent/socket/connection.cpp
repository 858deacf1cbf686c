#include "socket/connection.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <utility>

#include "frame.h"

namespace kavel::agent {
namespace {

constexpr std::chrono::seconds kPatience{10};
constexpr std::size_t kReadSize = 65536;

// What a connection keeps allocated between two frames.
constexpr std::size_t kIdleCapacity = 65536;

bool WouldWait(int error)
{
    return error == EAGAIN || error == EINTR;
}

} // namespace

short Connection::Wanted() const
{
    if (HasUnsentReply()) {
        return POLLOUT;
    }
    return MayRead() ? POLLIN : short{0};
}

void Connection::Advance(Clock::time_point now)
{
    if (HasUnsentReply()) {
        Write();
    }
    if (MayRead()) {
        Read();
    }
    UpdateDeadline(now);
}

bool Connection::MayRead() const
{
    return !broken_ && !ended_ && !HasUnsentReply() && !HoldsFrame() && !Oversized();
}

// Takes bytes as they come: what a header announces is worth no memory before it is there.
void Connection::Read()
{
    std::array<std::uint8_t, kReadSize> bytes; // NOLINT(cppcoreguidelines-pro-type-member-init): recv fills it
    while (MayRead()) {
        const ssize_t size = ::recv(socket_.Get(), bytes.data(), bytes.size(), 0);
        if (size < 0) {
            broken_ = !WouldWait(errno);
            return;
        }
        if (size == 0) {
            ended_ = true;
            return;
        }
        if (!dismissed_) {
            in_.insert(in_.end(), bytes.begin(), bytes.begin() + size);
        }
    }
}

void Connection::Write()
{
    while (HasUnsentReply()) {
        const ssize_t size = ::send(socket_.Get(), out_.data() + sent_, out_.size() - sent_, MSG_NOSIGNAL);
        if (size < 0) {
            broken_ = !WouldWait(errno);
            return;
        }
        sent_ += static_cast<std::size_t>(size);
    }
    out_ = {};
    sent_ = 0;
    if (dismissed_) {
        ::shutdown(socket_.Get(), SHUT_WR);
    } else {
        deadline_.reset();
    }
}

std::optional<std::size_t> Connection::AnnouncedLength() const
{
    if (in_.size() < control::kFrameHeaderSize) {
        return std::nullopt;
    }
    return control::DecodeFrameLength(in_.data());
}

bool Connection::HoldsFrame() const
{
    const auto length = AnnouncedLength();
    return length && *length <= control::kFrameMax && in_.size() - control::kFrameHeaderSize >= *length;
}

std::span<const std::uint8_t> Connection::Frame() const
{
    return std::span(in_).subspan(control::kFrameHeaderSize, *AnnouncedLength());
}

bool Connection::Oversized() const
{
    const auto length = AnnouncedLength();
    return length && *length > control::kFrameMax;
}

void Connection::Reply(std::vector<std::uint8_t> frame, Clock::time_point now)
{
    const auto used = static_cast<std::ptrdiff_t>(control::kFrameHeaderSize + *AnnouncedLength());
    in_.erase(in_.begin(), in_.begin() + used);
    if (in_.capacity() > kIdleCapacity) {
        in_.shrink_to_fit();
    }
    isInHand_ = false;
    served_ = true;
    Send(std::move(frame), now);
}

void Connection::Dismiss(std::vector<std::uint8_t> frame, Clock::time_point now)
{
    dismissed_ = true;
    in_ = {};
    Send(std::move(frame), now);
}

void Connection::Send(std::vector<std::uint8_t> frame, Clock::time_point now)
{
    out_ = std::move(frame);
    sent_ = 0;
    deadline_.reset();
    Advance(now);
}

bool Connection::Finished() const
{
    return broken_ || (ended_ && !HasUnsentReply() && !HoldsFrame() && !Oversized());
}

void Connection::UpdateDeadline(Clock::time_point now)
{
    const bool partial = !in_.empty() && !HoldsFrame();
    if (!HasUnsentReply() && !partial && !dismissed_) {
        deadline_.reset();
    } else if (!deadline_) {
        deadline_ = now + kPatience;
    }
}

void Connection::Postpone(Clock::duration delay)
{
    if (deadline_) {
        *deadline_ += delay;
    }
}

} // namespace kavel::agent

#include "socket/connection.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "frame.h"

namespace kavel::agent {
namespace {

constexpr std::chrono::seconds kStallTimeout{10};
constexpr std::size_t kReadSize = 65536;

bool WouldBlock(int error)
{
    return error == EAGAIN || error == EINTR;
}

} // namespace

std::span<const std::uint8_t> ReceivedFrame::Content() const
{
    return std::span(bytes).subspan(control::kFrameHeaderSize);
}

std::uint32_t Connection::WantedEvents() const
{
    if (HasUnsentReply()) {
        return EPOLLOUT;
    }
    return MayRead() ? std::uint32_t{EPOLLIN} : 0;
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
    return !isBusy_ && !isBroken_ && !hasEnded_ && !HasUnsentReply() && !HoldsFrame() && !IsOversized() &&
           !exceedsBudget_;
}

// The buffer grows with what was received, not with what a header announces. Of a client with short frames it stays
// within what is its own of the budget.
void Connection::Read()
{
    std::array<std::uint8_t, kReadSize> bytes; // NOLINT(cppcoreguidelines-pro-type-member-init): recv fills it
    const std::size_t most = std::min(kReadSize, control::kFrameHeaderSize + frameMax_);
    while (MayRead()) {
        const ssize_t size = ::recv(socket_.Get(), bytes.data(), most, 0);
        if (size < 0) {
            isBroken_ = !WouldBlock(errno);
            return;
        }
        if (size == 0) {
            hasEnded_ = true;
            return;
        }
        if (!isDismissed_) {
            exceedsBudget_ = !in_.Append(std::span(bytes).first(static_cast<std::size_t>(size)));
        }
    }
}

void Connection::Write()
{
    while (HasUnsentReply()) {
        const ssize_t size = ::send(socket_.Get(), out_.data() + sent_, out_.size() - sent_, MSG_NOSIGNAL);
        if (size < 0) {
            isBroken_ = !WouldBlock(errno);
            return;
        }
        sent_ += static_cast<std::size_t>(size);
    }
    out_ = {};
    sent_ = 0;
    if (isDismissed_) {
        ::shutdown(socket_.Get(), SHUT_WR);
    } else {
        deadline_.reset();
    }
}

std::optional<std::size_t> Connection::AnnouncedLength() const
{
    if (in_.Size() < control::kFrameHeaderSize) {
        return std::nullopt;
    }
    return control::DecodeFrameLength(in_.Bytes().data());
}

bool Connection::HoldsFrame() const
{
    const auto length = AnnouncedLength();
    return length && *length <= frameMax_ && in_.Size() - control::kFrameHeaderSize >= *length;
}

// What follows the frame in the buffer stays there.
ReceivedFrame Connection::BeginRequest()
{
    isBusy_ = true;
    deadline_.reset();
    return {in_.TakeFront(control::kFrameHeaderSize + *AnnouncedLength())};
}

bool Connection::IsOversized() const
{
    const auto length = AnnouncedLength();
    return length && *length > frameMax_;
}

void Connection::Reply(std::vector<std::uint8_t> frame, Clock::time_point now)
{
    isBusy_ = false;
    wasServed_ = true;
    activeAt_ = now;
    Send(std::move(frame), now);
}

void Connection::Dismiss(std::vector<std::uint8_t> frame, Clock::time_point now)
{
    isDismissed_ = true;
    exceedsBudget_ = false;
    in_.Clear();
    Send(std::move(frame), now);
}

void Connection::Send(std::vector<std::uint8_t> frame, Clock::time_point now)
{
    out_ = std::move(frame);
    sent_ = 0;
    deadline_.reset();
    Advance(now);
}

bool Connection::IsFinished() const
{
    return isBroken_ || (hasEnded_ && !isBusy_ && !HasUnsentReply() && !HoldsFrame() && !IsOversized());
}

void Connection::UpdateDeadline(Clock::time_point now)
{
    const bool isPartial = !in_.IsEmpty() && !HoldsFrame();
    if (!HasUnsentReply() && !isPartial && !isDismissed_) {
        deadline_.reset();
    } else if (!deadline_) {
        deadline_ = now + kStallTimeout;
    }
}

} // namespace kavel::agent

// One client of the control socket: the bytes that it sends and gets, and its deadlines.
#ifndef KAVEL_AGENT_CONNECTION_H
#define KAVEL_AGENT_CONNECTION_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "frame.h"
#include "socket/access.h"
#include "socket/receive_buffer.h"
#include "unique_fd.h"

namespace kavel::agent {

// A frame as it was received, header included.
struct ReceivedFrame {
    std::vector<std::uint8_t> bytes;
    std::string sender = {};       // "pid 123, uid 0 (vqctl)"; may be empty
    Access access = Access::kFull; // what the sender may do

    // Without the header.
    [[nodiscard]] std::span<const std::uint8_t> Content() const;
};

// Reads one frame at a time: the next one is read when the last one was replied to. A frame that was begun and a reply
// that was not read within 10 s are stalls; the owner compares Deadline() with its time and closes such a connection.
class Connection {
  public:
    using Clock = std::chrono::steady_clock;

    // `socket` does not block. `peer` is the client's process, for the log. `now` counts as its last activity. `budget`
    // counts what the client has sent until it is handed over or dropped; it must outlive the connection. A frame holds
    // `frameMax` bytes at most.
    Connection(UniqueFd socket, pid_t peer, Clock::time_point now, ReceiveBudget &budget,
               std::size_t frameMax = control::kFrameMax)
        : socket_(std::move(socket)), peer_(peer), frameMax_(frameMax), in_(budget), activeAt_(now)
    {
    }

    [[nodiscard]] int Fd() const { return socket_.Get(); }
    [[nodiscard]] pid_t Peer() const { return peer_; }
    [[nodiscard]] std::size_t FrameMax() const { return frameMax_; }

    // The epoll events that it waits for; 0: none.
    [[nodiscard]] std::uint32_t WantedEvents() const;

    // Reads and writes what is possible without blocking.
    void Advance(Clock::time_point now);

    // Whether a frame is complete and the one before it is replied to.
    [[nodiscard]] bool HasFrame() const { return HoldsFrame() && !HasUnsentReply() && !isBusy_; }
    // Takes the frame out. Until Reply() the client's bytes are not read and it has no deadline.
    [[nodiscard]] ReceivedFrame BeginRequest();
    [[nodiscard]] bool IsBusy() const { return isBusy_; }
    // Sends the answer to the frame of BeginRequest(), and begins to read again once it is sent.
    void Reply(std::vector<std::uint8_t> frame, Clock::time_point now);

    // Whether the header of the next frame announces more bytes than are accepted.
    [[nodiscard]] bool IsOversized() const;
    // Whether the budget had no room for what the client has sent. Some of it is lost: the connection can only be
    // dismissed.
    [[nodiscard]] bool ExceedsBudget() const { return exceedsBudget_; }
    // Sends a last answer. What the client still sends is discarded, so that it can read the answer.
    void Dismiss(std::vector<std::uint8_t> frame, Clock::time_point now);

    // Whether nothing of a frame was received and no reply is unread.
    [[nodiscard]] bool IsIdle() const { return in_.IsEmpty() && !deadline_ && !isBusy_; }
    // Whether at least one frame was replied to, and when the client was active last.
    [[nodiscard]] bool WasServed() const { return wasServed_; }
    [[nodiscard]] Clock::time_point ActiveAt() const { return activeAt_; }
    // Whether nothing more can or need be done for the client.
    [[nodiscard]] bool IsFinished() const;
    // Whether the client disconnected in the middle of a frame.
    [[nodiscard]] bool IsTruncated() const { return hasEnded_ && !in_.IsEmpty(); }
    [[nodiscard]] bool HasUnsentReply() const { return sent_ < out_.size(); }

    // When the current frame or reply must be complete; nothing while none is under way.
    [[nodiscard]] std::optional<Clock::time_point> Deadline() const { return deadline_; }

  private:
    void Read();
    void Write();
    [[nodiscard]] std::optional<std::size_t> AnnouncedLength() const;
    [[nodiscard]] bool HoldsFrame() const;
    [[nodiscard]] bool MayRead() const;
    void Send(std::vector<std::uint8_t> frame, Clock::time_point now);
    void UpdateDeadline(Clock::time_point now);

    UniqueFd socket_;
    pid_t peer_;
    std::size_t frameMax_;
    ReceiveBuffer in_;
    std::vector<std::uint8_t> out_;
    std::size_t sent_ = 0;
    bool hasEnded_ = false;      // the client sends no more
    bool isBroken_ = false;      // the client is gone
    bool exceedsBudget_ = false; // a part of what the client sent is lost
    bool isDismissed_ = false;   // what the client sends is discarded
    bool isBusy_ = false;        // a request is being handled
    bool wasServed_ = false;
    Clock::time_point activeAt_;
    std::optional<Clock::time_point> deadline_;
};

} // namespace kavel::agent

#endif

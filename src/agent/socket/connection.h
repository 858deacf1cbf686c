// One peer of the control socket: its bytes in, its bytes out, and how long it may take.
#ifndef KAVEL_AGENT_CONNECTION_H
#define KAVEL_AGENT_CONNECTION_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "unique_fd.h"

namespace kavel::agent {

class Connection {
  public:
    using Clock = std::chrono::steady_clock;

    Connection(UniqueFd socket, pid_t peer) : socket_(std::move(socket)), peer_(peer) {}

    [[nodiscard]] int Fd() const { return socket_.Get(); }
    [[nodiscard]] pid_t Peer() const { return peer_; }

    // The poll events that it waits for.
    [[nodiscard]] short Wanted() const;

    // Reads and writes as far as it goes without waiting.
    void Advance(Clock::time_point now);

    // A whole frame has come and the one before it is answered.
    [[nodiscard]] bool HasFrame() const { return HoldsFrame() && !HasUnsentReply() && !isInHand_; }
    [[nodiscard]] std::span<const std::uint8_t> Frame() const;
    // From now on Frame() is being dealt with. Until it is replied to, the peer is neither heard nor dropped.
    void TakeInHand() { isInHand_ = true; }
    [[nodiscard]] bool IsInHand() const { return isInHand_; }
    // Frame() is done with, and this is what it is answered with.
    void Reply(std::vector<std::uint8_t> frame, Clock::time_point now);

    // The next frame is announced longer than is taken.
    [[nodiscard]] bool Oversized() const;
    // Says so; what still comes is discarded, so that the peer gets to read the reply.
    void Dismiss(std::vector<std::uint8_t> frame, Clock::time_point now);

    // Nothing of a frame has come, and no reply waits to be taken.
    [[nodiscard]] bool Idle() const { return in_.empty() && !deadline_; }
    // At least one frame was answered.
    [[nodiscard]] bool Served() const { return served_; }
    // Nothing more can or need be done for the peer.
    [[nodiscard]] bool Finished() const;
    // The peer ended with a frame begun.
    [[nodiscard]] bool CutShort() const { return ended_ && !in_.empty(); }
    [[nodiscard]] bool HasUnsentReply() const { return sent_ < out_.size(); }

    // Until when the frame or reply at hand must be through.
    [[nodiscard]] std::optional<Clock::time_point> Deadline() const { return deadline_; }
    // Time that the agent took for others does not count.
    void Postpone(Clock::duration delay);

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
    std::vector<std::uint8_t> in_;
    std::vector<std::uint8_t> out_;
    std::size_t sent_ = 0;
    bool ended_ = false;     // the peer sends no more
    bool broken_ = false;    // the peer is gone
    bool dismissed_ = false; // it is heard no more
    bool isInHand_ = false;
    bool served_ = false;
    std::optional<Clock::time_point> deadline_;
};

} // namespace kavel::agent

#endif

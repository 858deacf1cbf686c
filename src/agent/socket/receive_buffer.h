// What the clients of a control socket have sent and nobody has taken yet, and the memory that it may use.
#ifndef KAVEL_AGENT_RECEIVE_BUFFER_H
#define KAVEL_AGENT_RECEIVE_BUFFER_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace kavel::agent {

// The memory that the receive buffers of all connections share. A connection's first kOwnBytes do not count: a small
// request always fits, whatever the other clients have sent.
class ReceiveBudget {
  public:
    static constexpr std::size_t kOwnBytes = std::size_t{64} * 1024;

    // `sharedMax`: bytes of all buffers beyond the first kOwnBytes of each.
    explicit ReceiveBudget(std::size_t sharedMax) : sharedMax_(sharedMax) {}
    ReceiveBudget(const ReceiveBudget &) = delete;
    ReceiveBudget &operator=(const ReceiveBudget &) = delete;
    ~ReceiveBudget() = default;

    // Whether there is room for one buffer to grow from one size to another.
    [[nodiscard]] bool HasRoom(std::size_t from, std::size_t to) const;
    // Counts a buffer that has grown or shrunk.
    void Resize(std::size_t from, std::size_t to);

    // Bytes of all buffers beyond the first kOwnBytes of each.
    [[nodiscard]] std::size_t Shared() const { return shared_; }

  private:
    std::size_t sharedMax_;
    std::size_t shared_ = 0;
};

// The bytes of one connection, counted in a budget for as long as they are here.
class ReceiveBuffer {
  public:
    // `budget` must outlive the buffer.
    explicit ReceiveBuffer(ReceiveBudget &budget) : budget_(&budget) {}
    ReceiveBuffer(ReceiveBuffer &&other) noexcept;
    ReceiveBuffer &operator=(ReceiveBuffer &&) = delete;
    ReceiveBuffer(const ReceiveBuffer &) = delete;
    ReceiveBuffer &operator=(const ReceiveBuffer &) = delete;
    ~ReceiveBuffer() { Clear(); }

    [[nodiscard]] std::span<const std::uint8_t> Bytes() const { return bytes_; }
    [[nodiscard]] std::size_t Size() const { return bytes_.size(); }
    [[nodiscard]] bool IsEmpty() const { return bytes_.empty(); }

    // False, and nothing has changed, when the budget has no room.
    [[nodiscard]] bool Append(std::span<const std::uint8_t> bytes);
    // Removes the first `size` bytes, which must be there.
    [[nodiscard]] std::vector<std::uint8_t> TakeFront(std::size_t size);
    void Clear();

  private:
    ReceiveBudget *budget_;
    std::vector<std::uint8_t> bytes_;
};

} // namespace kavel::agent

#endif

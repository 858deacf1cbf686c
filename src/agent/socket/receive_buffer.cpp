#include "socket/receive_buffer.h"

#include <utility>

namespace kavel::agent {
namespace {

std::size_t SharedPart(std::size_t size)
{
    return size > ReceiveBudget::kOwnBytes ? size - ReceiveBudget::kOwnBytes : 0;
}

} // namespace

bool ReceiveBudget::HasRoom(std::size_t from, std::size_t to) const
{
    return SharedPart(to) - SharedPart(from) <= sharedMax_ - shared_;
}

void ReceiveBudget::Resize(std::size_t from, std::size_t to)
{
    shared_ = shared_ - SharedPart(from) + SharedPart(to);
}

ReceiveBuffer::ReceiveBuffer(ReceiveBuffer &&other) noexcept
    : budget_(other.budget_), bytes_(std::exchange(other.bytes_, {}))
{
}

bool ReceiveBuffer::Append(std::span<const std::uint8_t> bytes)
{
    const std::size_t before = bytes_.size();
    if (!budget_->HasRoom(before, before + bytes.size())) {
        return false;
    }
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
    budget_->Resize(before, bytes_.size());
    return true;
}

// The rest is copied, not what is taken: it is at most what one read received beyond the end.
std::vector<std::uint8_t> ReceiveBuffer::TakeFront(std::size_t size)
{
    const auto end = bytes_.begin() + static_cast<std::ptrdiff_t>(size);
    std::vector<std::uint8_t> rest(end, bytes_.end());
    budget_->Resize(bytes_.size(), rest.size());
    bytes_.erase(end, bytes_.end());
    return std::exchange(bytes_, std::move(rest));
}

void ReceiveBuffer::Clear()
{
    budget_->Resize(bytes_.size(), 0);
    bytes_ = {};
}

} // namespace kavel::agent

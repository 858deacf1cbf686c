#include "socket/client_limits.h"

namespace kavel::agent {

ClientKind KindOf(Access access)
{
    if (HasAny(access, Access::kFull)) {
        return ClientKind::kOwner;
    }
    return HasAny(access, Access::kApply | Access::kStatus) ? ClientKind::kUser : ClientKind::kReader;
}

std::optional<std::string> UnansweredRequests::Objection(const RequestShare &share) const
{
    if (share.kind == ClientKind::kReader && ofReaders_ >= kReadersMax) {
        return std::to_string(kReadersMax) + " requests of readers are not answered yet";
    }
    if (share.kind != ClientKind::kUser) {
        return std::nullopt;
    }
    if (const auto own = byUser_.find(share.user); own != byUser_.end() && own->second >= kUserMax) {
        return std::to_string(kUserMax) + " requests of this user are not answered yet";
    }
    if (ofUsers_ >= kUsersRequestsMax) {
        return std::to_string(kUsersRequestsMax) + " requests of users are not answered yet";
    }
    if (share.bytes > kUsersBytesMax - usersBytes_) {
        return "the unanswered requests of users would take more than " + std::to_string(kUsersBytesMax) + " bytes";
    }
    return std::nullopt;
}

void UnansweredRequests::Begin(const RequestShare &share)
{
    if (share.kind == ClientKind::kReader) {
        ++ofReaders_;
    } else if (share.kind == ClientKind::kUser) {
        ++ofUsers_;
        ++byUser_[share.user];
        usersBytes_ += share.bytes;
    }
}

void UnansweredRequests::End(const RequestShare &share)
{
    if (share.kind == ClientKind::kReader) {
        --ofReaders_;
    } else if (share.kind == ClientKind::kUser) {
        --ofUsers_;
        usersBytes_ -= share.bytes;
        if (const auto own = byUser_.find(share.user); --own->second == 0) {
            byUser_.erase(own);
        }
    }
}

} // namespace kavel::agent

#include "base/netlink.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <linux/netlink.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <utility>

#include "base/failure.h"
#include "base/per_namespace.h"
#include "unique_fd.h"

namespace kavel::agent {
namespace {

constexpr std::size_t kReceiveSize = 32768;

// Each answer is a packet of its own in the socket's receive buffer; the smallest buffer that a box may be set to
// holds this many errors.
constexpr std::size_t kMessagesPerSend = 64;

// One for every VPN: opening another costs more than the socket itself.
PerNamespace<NetlinkSocket> &OpenSockets()
{
    static PerNamespace<NetlinkSocket> sockets(std::numeric_limits<std::size_t>::max());
    return sockets;
}

// Low descriptors are scarce: the library behind the rules waits with select(), which knows no others. There is a
// socket of this kind for every VPN, so that they go where the low ones end, unless the process may not have that many.
UniqueFd OpenSocket()
{
    UniqueFd socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (!socket) {
        ThrowLastFailure("netlink");
    }
    UniqueFd high(::fcntl(socket.Get(), F_DUPFD_CLOEXEC, FD_SETSIZE));
    return high ? std::move(high) : std::move(socket);
}

void SetOption(mnl_socket *socket, int option)
{
    int on = 1;
    // Older kernels know neither option: their answers are longer, and dumps are filtered by the reader.
    (void)mnl_socket_setsockopt(socket, option, &on, sizeof on);
}

} // namespace

nlmsghdr &NetlinkBatch::Append(const nlmsghdr &message)
{
    const std::size_t size = MNL_ALIGN(message.nlmsg_len);
    if (pieces_.empty() || inLast_ == kMessagesPerSend) {
        pieces_.emplace_back().reserve(size * kMessagesPerSend);
        inLast_ = 0;
    }
    std::vector<char> &piece = pieces_.back();
    const std::size_t start = piece.size();
    const auto *const bytes = reinterpret_cast<const char *>(&message);
    piece.insert(piece.end(), bytes, bytes + message.nlmsg_len);
    piece.resize(start + size);
    ++inLast_;
    return *reinterpret_cast<nlmsghdr *>(piece.data() + start);
}

NetlinkSocket::NetlinkSocket() : received_(kReceiveSize)
{
    UniqueFd handle = OpenSocket();
    socket_.reset(mnl_socket_fdopen(handle.Get()));
    if (socket_) {
        (void)handle.Release();
    }
    if (!socket_ || mnl_socket_bind(socket_.get(), 0, MNL_SOCKET_AUTOPID) < 0) {
        ThrowLastFailure("netlink");
    }
    SetOption(socket_.get(), NETLINK_CAP_ACK);
    SetOption(socket_.get(), NETLINK_GET_STRICT_CHK);
}

int NetlinkSocket::Request(NetlinkMessage &message)
{
    nlmsghdr *header = message.Header();
    header->nlmsg_flags |= NLM_F_ACK;
    header->nlmsg_seq = ++sequence_;
    Send(header, header->nlmsg_len);
    return AwaitAcknowledgement(sequence_, sequence_, 0);
}

int NetlinkSocket::InterfaceIndex(const std::string &name)
{
    if (lastInterface_.round != CurrentRound() || lastInterface_.name != name) {
        ifreq request = InterfaceRequest(name);
        const int index = ::ioctl(Fd(), SIOCGIFINDEX, &request) == 0 ? request.ifr_ifindex : LastFailure();
        lastInterface_ = {CurrentRound(), name, index};
    }
    return lastInterface_.index;
}

int NetlinkSocket::Dump(NetlinkMessage &message, const std::function<void(const nlmsghdr &)> &take)
{
    nlmsghdr *header = message.Header();
    header->nlmsg_flags |= NLM_F_DUMP;
    header->nlmsg_seq = ++sequence_;
    Send(header, header->nlmsg_len);

    for (;;) {
        int left = static_cast<int>(Receive());
        for (auto *at = reinterpret_cast<nlmsghdr *>(received_.data()); mnl_nlmsg_ok(at, left);
             at = mnl_nlmsg_next(at, &left)) {
            if (at->nlmsg_seq != sequence_) {
                continue;
            }
            if (at->nlmsg_type == NLMSG_DONE) {
                return 0;
            }
            if (at->nlmsg_type == NLMSG_ERROR) {
                return static_cast<const nlmsgerr *>(mnl_nlmsg_get_payload(at))->error;
            }
            take(*at);
        }
    }
}

int NetlinkSocket::RequestAll(NetlinkBatch &messages, int ignored)
{
    int result = 0;
    for (std::vector<char> &piece : messages.Pieces()) {
        const std::uint32_t first = sequence_ + 1;
        auto *last = reinterpret_cast<nlmsghdr *>(piece.data());
        int left = static_cast<int>(piece.size());
        for (auto *at = last; mnl_nlmsg_ok(at, left); at = mnl_nlmsg_next(at, &left)) {
            at->nlmsg_seq = ++sequence_;
            last = at;
        }
        // The kernel works a piece off in order: the last acknowledgement ends it, errors come before.
        last->nlmsg_flags |= NLM_F_ACK;
        Send(piece.data(), piece.size());
        const int answer = AwaitAcknowledgement(first, sequence_, ignored);
        result = result != 0 ? result : answer;
    }
    return result;
}

void NetlinkSocket::Send(const void *bytes, std::size_t size)
{
    if (mnl_socket_sendto(socket_.get(), bytes, size) < 0) {
        ThrowLastFailure("netlink send");
    }
}

int NetlinkSocket::AwaitAcknowledgement(std::uint32_t first, std::uint32_t last, int ignored)
{
    int result = 0;
    for (;;) {
        int left = static_cast<int>(Receive());
        for (auto *at = reinterpret_cast<nlmsghdr *>(received_.data()); mnl_nlmsg_ok(at, left);
             at = mnl_nlmsg_next(at, &left)) {
            if (at->nlmsg_type != NLMSG_ERROR || at->nlmsg_seq - first > last - first) {
                continue;
            }
            const int error = static_cast<const nlmsgerr *>(mnl_nlmsg_get_payload(at))->error;
            if (result == 0 && error != ignored) {
                result = error;
            }
            if (at->nlmsg_seq == last) {
                return result;
            }
        }
    }
}

std::size_t NetlinkSocket::Receive()
{
    for (;;) {
        const ssize_t size = mnl_socket_recvfrom(socket_.get(), received_.data(), received_.size());
        if (size >= 0) {
            return static_cast<std::size_t>(size);
        }
        if (errno != EINTR) {
            ThrowLastFailure("netlink receive");
        }
    }
}

ifreq InterfaceRequest(const std::string &name)
{
    ifreq request{};
    name.copy(request.ifr_name, sizeof request.ifr_name - 1);
    return request;
}

int WithNetlink(std::uint32_t vpnId, const std::function<int(NetlinkSocket &)> &work)
{
    return WithoutExceptions([&] {
        NetlinkSocket &socket = OpenSockets().Of(vpnId);
        try {
            return work(socket);
        } catch (...) {
            OpenSockets().Drop(vpnId);
            throw;
        }
    });
}

void CloseStaleNetlink()
{
    OpenSockets().DropStale();
}

} // namespace kavel::agent

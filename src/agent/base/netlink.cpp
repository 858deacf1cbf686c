#include "base/netlink.h"

#include <sys/ioctl.h>
#include <sys/socket.h>

#include <linux/netlink.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <utility>

#include "base/high_fd.h"
#include "failure.h"
#include "unique_fd.h"

namespace kavel::agent {
namespace {

constexpr std::size_t kReceiveSize = 32768;

// Each answer is a packet of its own in the socket's receive buffer; the smallest buffer that a box may be set to
// holds this many errors.
constexpr std::size_t kMessagesPerSend = 64;

// An answer of the kernel. Thousands of sockets share the stack.
using ReceiveBuffer = std::array<char, kReceiveSize>;

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

UniqueFd OpenNetlink(int protocol)
{
    UniqueFd socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol));
    if (!socket) {
        ThrowLastErrno("netlink");
    }
    return MoveHigh(std::move(socket));
}

NetlinkSocket::NetlinkSocket()
{
    UniqueFd handle = OpenNetlink(NETLINK_ROUTE);
    socket_.reset(mnl_socket_fdopen(handle.Get()));
    if (socket_) {
        (void)handle.Release();
    }
    if (!socket_ || mnl_socket_bind(socket_.get(), 0, MNL_SOCKET_AUTOPID) < 0) {
        ThrowLastErrno("netlink");
    }
    SetOption(socket_.get(), NETLINK_CAP_ACK);
    SetOption(socket_.get(), NETLINK_GET_STRICT_CHK);
}

void NetlinkSocket::Request(NetlinkMessage &message)
{
    (void)RequestUnless(0, message);
}

bool NetlinkSocket::RequestUnless(int expected, NetlinkMessage &message)
{
    nlmsghdr *header = message.Header();
    header->nlmsg_flags |= NLM_F_ACK;
    header->nlmsg_seq = ++sequence_;
    Send(header, header->nlmsg_len);
    const int error = FirstError(sequence_, sequence_, 0);
    if (error != 0 && error != expected) {
        throw KernelRefusal(error);
    }
    return error == 0;
}

void NetlinkSocket::BeginRequest(std::uint64_t request)
{
    if (request_ != request) {
        request_ = request;
        lastInterface_ = {};
    }
}

int NetlinkSocket::InterfaceIndex(const std::string &name)
{
    if (lastInterface_.index == 0 || lastInterface_.name != name) {
        ifreq request = InterfaceRequest(name);
        if (::ioctl(Fd(), SIOCGIFINDEX, &request) != 0) {
            throw KernelRefusal(errno);
        }
        lastInterface_ = {name, request.ifr_ifindex};
    }
    return lastInterface_.index;
}

void NetlinkSocket::Dump(NetlinkMessage &message, const std::function<void(const nlmsghdr &)> &take)
{
    nlmsghdr *header = message.Header();
    header->nlmsg_flags |= NLM_F_DUMP;
    header->nlmsg_seq = ++sequence_;
    Send(header, header->nlmsg_len);

    alignas(nlmsghdr) ReceiveBuffer buffer; // NOLINT(cppcoreguidelines-pro-type-member-init): the kernel fills it
    for (;;) {
        int left = static_cast<int>(Receive(buffer));
        for (auto *at = reinterpret_cast<nlmsghdr *>(buffer.data()); mnl_nlmsg_ok(at, left);
             at = mnl_nlmsg_next(at, &left)) {
            if (at->nlmsg_seq != sequence_) {
                continue;
            }
            if (at->nlmsg_type == NLMSG_DONE) {
                return;
            }
            if (at->nlmsg_type == NLMSG_ERROR) {
                throw KernelRefusal(-static_cast<const nlmsgerr *>(mnl_nlmsg_get_payload(at))->error);
            }
            take(*at);
        }
    }
}

void NetlinkSocket::RequestAll(NetlinkBatch &messages, int ignored)
{
    int firstError = 0;
    for (std::vector<char> &piece : messages.Pieces()) {
        const std::uint32_t first = sequence_ + 1;
        auto *last = reinterpret_cast<nlmsghdr *>(piece.data());
        int left = static_cast<int>(piece.size());
        for (auto *at = last; mnl_nlmsg_ok(at, left); at = mnl_nlmsg_next(at, &left)) {
            at->nlmsg_seq = ++sequence_;
            last = at;
        }
        // The kernel processes a piece in order: the last acknowledgement comes after all errors.
        last->nlmsg_flags |= NLM_F_ACK;
        Send(piece.data(), piece.size());
        const int error = FirstError(first, sequence_, ignored);
        firstError = firstError != 0 ? firstError : error;
    }
    if (firstError != 0) {
        throw KernelRefusal(firstError);
    }
}

void NetlinkSocket::Send(const void *bytes, std::size_t size)
{
    if (mnl_socket_sendto(socket_.get(), bytes, size) < 0) {
        ThrowLastErrno("netlink send");
    }
}

int NetlinkSocket::FirstError(std::uint32_t first, std::uint32_t last, int ignored)
{
    alignas(nlmsghdr) ReceiveBuffer buffer; // NOLINT(cppcoreguidelines-pro-type-member-init): the kernel fills it
    int firstError = 0;
    for (;;) {
        int left = static_cast<int>(Receive(buffer));
        for (auto *at = reinterpret_cast<nlmsghdr *>(buffer.data()); mnl_nlmsg_ok(at, left);
             at = mnl_nlmsg_next(at, &left)) {
            if (at->nlmsg_type != NLMSG_ERROR || at->nlmsg_seq - first > last - first) {
                continue;
            }
            const int error = -static_cast<const nlmsgerr *>(mnl_nlmsg_get_payload(at))->error;
            if (firstError == 0 && error != ignored) {
                firstError = error;
            }
            if (at->nlmsg_seq == last) {
                return firstError;
            }
        }
    }
}

std::size_t NetlinkSocket::Receive(std::span<char> buffer)
{
    for (;;) {
        const ssize_t size = mnl_socket_recvfrom(socket_.get(), buffer.data(), buffer.size());
        if (size >= 0) {
            return static_cast<std::size_t>(size);
        }
        if (errno != EINTR) {
            ThrowLastErrno("netlink receive");
        }
    }
}

ifreq InterfaceRequest(const std::string &name)
{
    ifreq request{};
    name.copy(request.ifr_name, sizeof request.ifr_name - 1);
    return request;
}

// One socket per VPN, without a limit: opening one costs more than a request.
RouteSockets::RouteSockets(const Namespaces &namespaces)
    : namespaces_(namespaces), sockets_(namespaces, std::numeric_limits<std::size_t>::max())
{
}

} // namespace kavel::agent

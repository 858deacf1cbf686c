// One route netlink socket per VPN, opened inside the VPN's namespace and kept.
#ifndef KAVEL_AGENT_NETLINK_H
#define KAVEL_AGENT_NETLINK_H

#include <libmnl/libmnl.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kavel::agent {

inline constexpr std::size_t kNetlinkMessageMax = 8192;

// A message under construction.
class NetlinkMessage {
  public:
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): see bytes_
    NetlinkMessage(std::uint16_t type, std::uint16_t flags) : header_(mnl_nlmsg_put_header(bytes_.data()))
    {
        header_->nlmsg_type = type;
        header_->nlmsg_flags = static_cast<std::uint16_t>(flags | NLM_F_REQUEST);
    }
    ~NetlinkMessage() = default;
    NetlinkMessage(const NetlinkMessage &) = delete;
    NetlinkMessage &operator=(const NetlinkMessage &) = delete;

    template <typename Extra>
    Extra *PutExtra()
    {
        return static_cast<Extra *>(mnl_nlmsg_put_extra_header(header_, sizeof(Extra)));
    }
    nlmsghdr *Header() { return header_; }

  private:
    // Not zeroed: the library zeroes what it puts in, and most of it stays unused.
    alignas(nlmsghdr) std::array<char, kNetlinkMessageMax> bytes_;
    nlmsghdr *header_;
};

// Kernel answers come back as results, 0 or a negated errno. A socket that fails throws std::system_error and is not to
// be used again.
class NetlinkSocket {
  public:
    // In the calling thread's namespace.
    NetlinkSocket();

    int Request(NetlinkMessage &message);

    // Calls `take` for every message of the answer.
    int Dump(NetlinkMessage &message, const std::function<void(const nlmsghdr &)> &take);

    // Whole messages with NLM_F_REQUEST set, sent in as few pieces as the socket's buffer allows. The first error
    // among them that is not `ignored`.
    int RequestAll(std::vector<std::vector<char>> &messages, int ignored);

    // Any socket of a namespace answers the interface ioctls for it.
    [[nodiscard]] int Fd() const { return mnl_socket_get_fd(socket_.get()); }

  private:
    struct Close {
        void operator()(mnl_socket *socket) const { mnl_socket_close(socket); }
    };

    void Send(const void *bytes, std::size_t size);
    // Reads on until `last` is acknowledged.
    int AwaitAcknowledgement(std::uint32_t first, std::uint32_t last, int ignored);
    std::size_t Receive();

    std::unique_ptr<mnl_socket, Close> socket_;
    std::uint32_t sequence_ = 0;
    std::vector<char> received_;
};

// Runs `work` with the VPN's socket. The failures of opening or using it come back as a negated errno; the next call
// opens another.
int WithNetlink(std::uint32_t vpnId, const std::function<int(NetlinkSocket &)> &work);

// Closes the sockets whose VPN has another namespace now, or none: an open one would keep the old namespace alive.
void CloseStaleNetlink();

} // namespace kavel::agent

#endif

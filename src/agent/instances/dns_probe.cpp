#include "instances/dns_probe.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <random>
#include <system_error>
#include <utility>

#include "base/failure.h"
#include "base/log.h"

namespace kavel::agent {
namespace {

constexpr std::uint16_t kDnsPort = 53;
constexpr std::size_t kHeaderSize = 12;
constexpr std::uint8_t kResponseFlag = 0x80;

// CHAOS TXT cachesize.bind: dnsmasq answers it itself and never forwards it. The id is in the first two bytes.
constexpr std::array<std::uint8_t, 32> kQuery{0,   0,   0,   0,   0,   1,   0, 0,   0,   0,   0,   0, 9, 'c', 'a', 'c',
                                              'h', 'e', 's', 'i', 'z', 'e', 4, 'b', 'i', 'n', 'd', 0, 0, 16,  0,   3};

std::array<std::uint8_t, kQuery.size()> QueryWithId(std::uint16_t id)
{
    auto query = kQuery;
    query[0] = static_cast<std::uint8_t>(id >> 8U);
    query[1] = static_cast<std::uint8_t>(id);
    return query;
}

// Connected, so that a closed port is reported at once.
UniqueFd SendQuery(const Namespaces &namespaces, std::uint32_t vpnId, std::uint16_t queryId)
{
    const NamespaceSwitch inside(namespaces, vpnId);
    UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_port = htons(kDnsPort);
    server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const auto query = QueryWithId(queryId);
    if (!socket || ::connect(socket.Get(), reinterpret_cast<const sockaddr *>(&server), sizeof server) != 0 ||
        ::send(socket.Get(), query.data(), query.size(), 0) < 0) {
        ThrowLastErrno("DNS query");
    }
    return socket;
}

enum class Verdict { kAnswered, kRefused, kPending };

// Reads every packet that has come: a stray one may precede the answer.
Verdict ReadPackets(const UniqueFd &socket, std::uint16_t queryId)
{
    for (;;) {
        std::array<std::uint8_t, 512> answer{};
        const ssize_t size = ::recv(socket.Get(), answer.data(), answer.size(), 0);
        if (size < 0) {
            return errno == EAGAIN || errno == EINTR ? Verdict::kPending : Verdict::kRefused;
        }
        const bool isOurs = static_cast<std::size_t>(size) >= kHeaderSize && answer[0] == queryId >> 8U &&
                            answer[1] == (queryId & 0xFFU) && (answer[2] & kResponseFlag) != 0;
        if (isOurs) {
            return Verdict::kAnswered;
        }
    }
}

} // namespace

DnsProbe::DnsProbe(EventLoop &loop, const Namespaces &namespaces, const std::vector<std::uint32_t> &vpnIds,
                   std::chrono::milliseconds timeout, OnEnd onEnd)
    : onEnd_(std::move(onEnd)), timer_(loop.AddTimer([this] { onEnd_(answering_); }))
{
    std::random_device random;
    for (const std::uint32_t vpnId : vpnIds) {
        try {
            Ask(loop, namespaces, vpnId, static_cast<std::uint16_t>(random()));
        } catch (const std::system_error &failure) {
            Log(LogLevel::kDebug, "vpn %u: cannot ask its instance: %s", vpnId, failure.what());
        }
    }
    timer_.ArmTimer(EventLoop::Clock::now() + (pending_.empty() ? std::chrono::milliseconds(0) : timeout));
}

void DnsProbe::Ask(EventLoop &loop, const Namespaces &namespaces, std::uint32_t vpnId, std::uint16_t queryId)
{
    UniqueFd socket = SendQuery(namespaces, vpnId, queryId);
    const int fd = socket.Get();
    EventSource source = loop.AddIo(fd, EPOLLIN, [this, vpnId](std::uint32_t /*events*/) { ReadAnswer(vpnId); });
    pending_.insert_or_assign(vpnId, Question{queryId, std::move(socket), std::move(source)});
}

void DnsProbe::ReadAnswer(std::uint32_t vpnId)
{
    const auto question = pending_.find(vpnId);
    const Verdict verdict = ReadPackets(question->second.socket, question->second.queryId);
    if (verdict == Verdict::kPending) {
        return;
    }
    if (verdict == Verdict::kAnswered) {
        answering_.insert(vpnId);
    }
    pending_.erase(question);
    if (pending_.empty()) {
        timer_.ArmTimer(EventLoop::Clock::now());
    }
}

} // namespace kavel::agent

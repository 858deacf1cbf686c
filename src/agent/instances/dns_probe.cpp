#include "instances/dns_probe.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <random>
#include <system_error>
#include <utility>

#include "base/failure.h"
#include "base/log.h"
#include "base/netns.h"
#include "unique_fd.h"

namespace kavel::agent {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint16_t kDnsPort = 53;
constexpr std::size_t kHeaderSize = 12;
constexpr std::uint8_t kResponseFlag = 0x80;

// CHAOS TXT cachesize.bind: answered by dnsmasq itself, never passed on. The id goes into the first two bytes.
constexpr std::array<std::uint8_t, 32> kQuery{0,   0,   0,   0,   0,   1,   0, 0,   0,   0,   0,   0, 9, 'c', 'a', 'c',
                                              'h', 'e', 's', 'i', 'z', 'e', 4, 'b', 'i', 'n', 'd', 0, 0, 16,  0,   3};

struct Probe {
    std::uint32_t vpnId;
    std::uint16_t queryId;
    UniqueFd socket;
};

std::array<std::uint8_t, kQuery.size()> QueryWithId(std::uint16_t id)
{
    auto query = kQuery;
    query[0] = static_cast<std::uint8_t>(id >> 8U);
    query[1] = static_cast<std::uint8_t>(id);
    return query;
}

UniqueFd OpenSocketIn(std::uint32_t vpnId)
{
    const NamespaceSwitch inside(vpnId);
    UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket) {
        ThrowLastFailure("socket");
    }
    return socket;
}

// Connected, so that a closed port is told at once instead of by silence.
bool Ask(const Probe &probe)
{
    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_port = htons(kDnsPort);
    server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const auto query = QueryWithId(probe.queryId);
    return ::connect(probe.socket.Get(), reinterpret_cast<const sockaddr *>(&server), sizeof server) == 0 &&
           ::send(probe.socket.Get(), query.data(), query.size(), 0) == static_cast<ssize_t>(query.size());
}

std::vector<Probe> AskAll(const std::vector<std::uint32_t> &vpnIds)
{
    std::random_device random;
    std::vector<Probe> asked;
    for (const std::uint32_t vpnId : vpnIds) {
        try {
            Probe probe{vpnId, static_cast<std::uint16_t>(random()), OpenSocketIn(vpnId)};
            if (Ask(probe)) {
                asked.push_back(std::move(probe));
            }
        } catch (const std::system_error &failure) {
            Log(LogLevel::kDebug, "vpn %u: cannot ask its instance: %s", vpnId, failure.what());
        }
    }
    return asked;
}

enum class Verdict { kAnswered, kRefused, kPending };

// Reads all that has come: a stray packet may stand before the answer.
Verdict ReadAnswer(const Probe &probe)
{
    for (;;) {
        std::array<std::uint8_t, 512> answer{};
        const ssize_t size = ::recv(probe.socket.Get(), answer.data(), answer.size(), 0);
        if (size < 0) {
            return errno == EAGAIN || errno == EINTR ? Verdict::kPending : Verdict::kRefused;
        }
        const bool ours = static_cast<std::size_t>(size) >= kHeaderSize && answer[0] == probe.queryId >> 8U &&
                          answer[1] == (probe.queryId & 0xFFU) && (answer[2] & kResponseFlag) != 0;
        if (ours) {
            return Verdict::kAnswered;
        }
    }
}

// Waits until one of them has something to read. False once the deadline has passed.
bool Await(std::vector<pollfd> &watched, Clock::time_point deadline)
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 && ::poll(watched.data(), watched.size(), static_cast<int>(left)) > 0;
}

} // namespace

std::set<std::uint32_t> AnsweringVpns(const std::vector<std::uint32_t> &vpnIds, std::chrono::milliseconds patience)
{
    std::set<std::uint32_t> answering;
    std::vector<Probe> asked = AskAll(vpnIds);
    const auto deadline = Clock::now() + patience;
    while (!asked.empty()) {
        std::vector<pollfd> watched;
        watched.reserve(asked.size());
        for (const Probe &probe : asked) {
            watched.push_back({probe.socket.Get(), POLLIN, 0});
        }
        if (!Await(watched, deadline)) {
            break;
        }
        std::erase_if(asked, [&](const Probe &probe) {
            const Verdict verdict = ReadAnswer(probe);
            if (verdict == Verdict::kAnswered) {
                answering.insert(probe.vpnId);
            }
            return verdict != Verdict::kPending;
        });
    }
    return answering;
}

} // namespace kavel::agent

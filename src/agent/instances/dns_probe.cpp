#include "instances/dns_probe.h"

#include <arpa/inet.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <random>
#include <span>
#include <system_error>
#include <utility>

#include "failure.h"
#include "log.h"

namespace kavel::agent {
namespace {

constexpr std::uint16_t kDnsPort = 53;
constexpr std::size_t kHeaderSize = 12;
constexpr std::size_t kLengthSize = 2; // over TCP, in front of a message
constexpr std::uint8_t kResponseFlag = 0x80;

// After its first label: CHAOS TXT cachesize.bind and others, which dnsmasq answers itself and never forwards.
constexpr std::array<std::uint8_t, 10> kBindText{4, 'b', 'i', 'n', 'd', 0, 0, 16, 0, 3};
// IN NS of the root: every resolver answers it, if only with a refusal.
constexpr std::array<std::uint8_t, 5> kRootServers{0, 0, 2, 0, 1};

std::vector<std::uint8_t> QueryFor(const DnsTarget &target, std::uint16_t id)
{
    // One question, recursion desired of a resolver.
    const std::uint8_t flags = target.isInstance ? 0 : 1;
    const auto high = static_cast<std::uint8_t>(id >> 8U);
    const auto low = static_cast<std::uint8_t>(id);
    std::vector<std::uint8_t> query{high, low, flags, 0, 0, 1, 0, 0, 0, 0, 0, 0};
    if (target.isInstance) {
        query.push_back(static_cast<std::uint8_t>(target.counter.size()));
        query.insert(query.end(), target.counter.begin(), target.counter.end());
    }
    const auto question = target.isInstance ? std::span<const std::uint8_t>(kBindText) : std::span(kRootServers);
    query.insert(query.end(), question.begin(), question.end());
    if (target.overTcp) {
        const std::size_t length = query.size();
        query.insert(query.begin(), {static_cast<std::uint8_t>(length >> 8U), static_cast<std::uint8_t>(length)});
    }
    return query;
}

bool IsAnswer(std::span<const std::uint8_t> message, std::uint16_t id)
{
    return message.size() >= kHeaderSize && message[0] == id >> 8U && message[1] == (id & 0xFFU) &&
           (message[2] & kResponseFlag) != 0;
}

// The address of the target's DNS port. Returns its length.
socklen_t FillAddress(const DnsTarget &target, sockaddr_storage &address)
{
    if (target.address6) {
        auto &ipv6 = reinterpret_cast<sockaddr_in6 &>(address);
        ipv6.sin6_family = AF_INET6;
        ipv6.sin6_port = htons(kDnsPort);
        ipv6.sin6_addr = *target.address6;
        return sizeof ipv6;
    }
    auto &ipv4 = reinterpret_cast<sockaddr_in &>(address);
    ipv4.sin_family = AF_INET;
    ipv4.sin_port = htons(kDnsPort);
    ipv4.sin_addr.s_addr = htonl(target.address);
    return sizeof ipv4;
}

// Connected, so that a closed port is reported at once.
UniqueFd Connect(const Namespaces &namespaces, const DnsTarget &target)
{
    const NamespaceSwitch inside(namespaces, target.vpnId);
    const int kind = target.overTcp ? SOCK_STREAM : SOCK_DGRAM;
    UniqueFd socket(::socket(target.address6 ? AF_INET6 : AF_INET, kind | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_storage server{};
    const socklen_t length = FillAddress(target, server);
    const bool isBound = socket && (target.interface.empty() ||
                                    ::setsockopt(socket.Get(), SOL_SOCKET, SO_BINDTODEVICE, target.interface.c_str(),
                                                 static_cast<socklen_t>(target.interface.size())) == 0);
    if (!isBound ||
        (::connect(socket.Get(), reinterpret_cast<const sockaddr *>(&server), length) != 0 && errno != EINPROGRESS)) {
        ThrowLastErrno("DNS query");
    }
    return socket;
}

enum class Verdict { kAnswered, kRefused, kPending };

Verdict VerdictOfError()
{
    return errno == EAGAIN || errno == EINTR ? Verdict::kPending : Verdict::kRefused;
}

// Reads every packet that has come: a stray one may precede the answer.
Verdict ReadPackets(const UniqueFd &socket, std::uint16_t queryId, std::vector<std::uint8_t> &message)
{
    for (;;) {
        std::array<std::uint8_t, 512> packet{};
        const ssize_t size = ::recv(socket.Get(), packet.data(), packet.size(), 0);
        if (size < 0) {
            return VerdictOfError();
        }
        if (IsAnswer({packet.data(), static_cast<std::size_t>(size)}, queryId)) {
            message.assign(packet.begin(), packet.begin() + size);
            return Verdict::kAnswered;
        }
    }
}

// The bytes of the one answer that are waited for, with its length in front.
std::size_t NeededOf(std::span<const std::uint8_t> received, bool isWhole)
{
    constexpr std::size_t kHeaderEnd = kLengthSize + kHeaderSize;
    if (!isWhole || received.size() < kHeaderEnd) {
        return kHeaderEnd;
    }
    return std::max<std::size_t>(kHeaderEnd, kLengthSize + (std::size_t{received[0]} << 8U) + received[1]);
}

Verdict ReadStream(const UniqueFd &socket, std::uint16_t queryId, bool isWhole, std::vector<std::uint8_t> &received)
{
    std::array<std::uint8_t, 4096> bytes{};
    const ssize_t size = ::recv(socket.Get(), bytes.data(), bytes.size(), 0);
    if (size < 0) {
        return VerdictOfError();
    }
    received.insert(received.end(), bytes.begin(), bytes.begin() + size);
    if (received.size() >= NeededOf(received, isWhole)) {
        return IsAnswer(std::span(received).subspan(kLengthSize), queryId) ? Verdict::kAnswered : Verdict::kRefused;
    }
    return size == 0 ? Verdict::kRefused : Verdict::kPending;
}

} // namespace

std::vector<DnsTarget> DnsTarget::Instances(const std::vector<std::uint32_t> &vpnIds, bool overTcp)
{
    std::vector<DnsTarget> targets;
    targets.reserve(vpnIds.size());
    for (const std::uint32_t vpnId : vpnIds) {
        targets.push_back({.vpnId = vpnId, .overTcp = overTcp});
    }
    return targets;
}

DnsProbe::DnsProbe(EventLoop &loop, Host &host, const std::vector<DnsTarget> &targets,
                   std::chrono::milliseconds timeout, OnEnd onEnd)
    : host_(host), questions_(targets.size()), onEnd_(std::move(onEnd)), timer_(loop.AddTimer([this] {
          const OnEnd report = std::move(onEnd_);
          const DnsAnswers answering = std::move(answering_);
          report(answering);
      }))
{
    std::random_device random;
    for (std::size_t position = 0; position < targets.size(); ++position) {
        questions_[position].target = targets[position];
        questions_[position].queryId = static_cast<std::uint16_t>(random());
        try {
            Ask(loop, position);
        } catch (const std::system_error &failure) {
            Log(LogLevel::kDebug, "vpn %u: a DNS server cannot be asked: %s", targets[position].vpnId, failure.what());
        }
    }
    timer_.ArmTimer(EventLoop::Clock::now() + (pending_ == 0 ? std::chrono::milliseconds(0) : timeout));
}

void DnsProbe::Ask(EventLoop &loop, std::size_t position)
{
    Question &question = questions_[position];
    question.socket = Connect(host_.namespaces, question.target);
    question.source =
        loop.AddIo(question.socket.Get(), EPOLLOUT, [this, position](std::uint32_t /*events*/) { Advance(position); });
    ++pending_;
    if (!question.target.overTcp) {
        Advance(position);
    }
}

void DnsProbe::Send(Question &question)
{
    const DnsTarget &target = question.target;
    const auto query = QueryFor(target, question.queryId);
    question.reply.questionsBefore = host_.ownQuestions.CountOf(target.vpnId);
    question.isSent = ::send(question.socket.Get(), query.data(), query.size(), MSG_NOSIGNAL) >= 0;
    if (question.isSent && target.isInstance && !target.overTcp) {
        question.counted = host_.ownQuestions.Add(target.vpnId);
    }
}

// Sends the question once the socket can, and then reads.
void DnsProbe::Advance(std::size_t position)
{
    Question &question = questions_[position];
    Verdict verdict = Verdict::kPending;
    if (!question.isSent) {
        Send(question);
        verdict = question.isSent ? Verdict::kPending : VerdictOfError();
        question.source.SetIoEvents(question.isSent ? EPOLLIN : EPOLLOUT);
    } else {
        verdict = question.target.overTcp
                      ? ReadStream(question.socket, question.queryId, question.target.isWhole, question.received)
                      : ReadPackets(question.socket, question.queryId, question.reply.message);
    }
    if (verdict != Verdict::kPending) {
        EndQuestion(position, verdict == Verdict::kAnswered);
    }
}

void DnsProbe::EndQuestion(std::size_t position, bool hasAnswered)
{
    Question &question = questions_[position];
    if (hasAnswered) {
        answering_[position] = std::chrono::duration_cast<std::chrono::milliseconds>(EventLoop::Clock::now() - begun_);
    } else if (question.counted) {
        host_.ownQuestions.Withdraw(*question.counted);
    }
    if (hasAnswered && question.target.overTcp) {
        question.reply.message.assign(question.received.begin() + kLengthSize, question.received.end());
    }
    question.source = EventSource();
    question.socket = UniqueFd();
    if (--pending_ == 0) {
        timer_.ArmTimer(EventLoop::Clock::now());
    }
}

} // namespace kavel::agent

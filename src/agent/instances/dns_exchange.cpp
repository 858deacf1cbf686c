#include "instances/dns_exchange.h"

#include <arpa/inet.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <random>
#include <span>
#include <utility>

#include "failure.h"

namespace kavel::agent {
namespace {

constexpr std::size_t kPrefixSize = 2; // over TCP, the length in front of a message
constexpr std::size_t kChunkSize = 4096;

bool MustWait()
{
    return errno == EAGAIN || errno == EINTR;
}

} // namespace

DnsExchange::DnsExchange(EventLoop &loop, const Namespaces &namespaces, const DnsQuestion &question, std::uint16_t port,
                         OnEnd onEnd)
    : loop_(loop), namespaces_(namespaces), vpnId_(question.vpnId), port_(port),
      queryId_(static_cast<std::uint16_t>(std::random_device()())),
      question_(EncodeDnsQuestion(question.name, question.type, queryId_).value()), onEnd_(std::move(onEnd))
{
    Connect(SOCK_DGRAM);
    if (::send(socket_.Get(), question_.data(), question_.size(), MSG_NOSIGNAL) < 0) {
        ThrowLastErrno("DNS query");
    }
    source_ = loop_.AddIo(socket_.Get(), EPOLLIN, [this](std::uint32_t /*events*/) { ReceivePacket(); });
}

// Connected, so that a closed port is reported at once.
void DnsExchange::Connect(int kind)
{
    const NamespaceSwitch inside(namespaces_, vpnId_);
    UniqueFd socket(::socket(AF_INET, kind | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_port = htons(port_);
    server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (!socket || (::connect(socket.Get(), reinterpret_cast<const sockaddr *>(&server), sizeof server) != 0 &&
                    errno != EINPROGRESS)) {
        ThrowLastErrno("DNS query");
    }
    source_ = EventSource();
    socket_ = std::move(socket);
}

// A packet that is no answer to the question is passed over.
void DnsExchange::ReceivePacket()
{
    std::array<std::uint8_t, kChunkSize> packet{};
    const ssize_t size = ::recv(socket_.Get(), packet.data(), packet.size(), 0);
    if (size < 0) {
        return MustWait() ? void() : End(std::nullopt);
    }
    auto answer = DecodeDnsAnswer(std::span(packet).first(static_cast<std::size_t>(size)), queryId_);
    if (!answer) {
        return;
    }
    if (!answer->isTruncated) {
        End(std::move(answer));
        return;
    }
    try {
        Connect(SOCK_STREAM);
        source_ = loop_.AddIo(socket_.Get(), EPOLLOUT, [this](std::uint32_t /*events*/) { AdvanceStream(); });
    } catch (const std::system_error &) {
        End(std::nullopt);
    }
}

// Sends the question once the connection is there, and then reads.
void DnsExchange::AdvanceStream()
{
    if (isSent_) {
        ReceiveStream();
        return;
    }
    std::vector<std::uint8_t> framed{static_cast<std::uint8_t>(question_.size() >> 8U),
                                     static_cast<std::uint8_t>(question_.size())};
    framed.insert(framed.end(), question_.begin(), question_.end());
    if (::send(socket_.Get(), framed.data(), framed.size(), MSG_NOSIGNAL) < 0) {
        return MustWait() ? void() : End(std::nullopt);
    }
    isSent_ = true;
    source_.SetIoEvents(EPOLLIN);
}

void DnsExchange::ReceiveStream()
{
    std::array<std::uint8_t, kChunkSize> chunk{};
    const ssize_t size = ::recv(socket_.Get(), chunk.data(), chunk.size(), 0);
    if (size < 0 && MustWait()) {
        return;
    }
    received_.insert(received_.end(), chunk.begin(), chunk.begin() + std::max<ssize_t>(size, 0));
    const std::size_t length =
        received_.size() < kPrefixSize ? 0 : static_cast<std::size_t>(received_[0]) << 8U | received_[1];
    if (received_.size() >= kPrefixSize + length && received_.size() >= kPrefixSize) {
        End(DecodeDnsAnswer(std::span(received_).subspan(kPrefixSize, length), queryId_));
    } else if (size <= 0) {
        End(std::nullopt);
    }
}

void DnsExchange::End(std::optional<DnsAnswer> answer)
{
    source_ = EventSource();
    const OnEnd report = std::move(onEnd_);
    report(std::move(answer));
}

} // namespace kavel::agent

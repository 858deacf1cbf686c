#include "scripted_broker.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>

namespace kavel::broker {

namespace {

std::string Packet(unsigned char first, const std::string &body)
{
    EXPECT_LT(body.size(), 128U);
    return std::string(1, static_cast<char>(first)) + static_cast<char>(body.size()) + body;
}

std::string CountedText(std::string_view text)
{
    return std::string(1, '\0') + static_cast<char>(text.size()) + std::string(text);
}

} // namespace

ScriptedBroker::ScriptedBroker(EventLoop &loop)
    : loop_(loop), listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
{
    sockaddr_in address{.sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
    socklen_t size = sizeof address;
    auto *const generic = reinterpret_cast<sockaddr *>(&address);
    EXPECT_EQ(::bind(listener_.Get(), generic, size), 0);
    EXPECT_EQ(::listen(listener_.Get(), 8), 0);
    EXPECT_EQ(::getsockname(listener_.Get(), generic, &size), 0);
    port_ = ntohs(address.sin_port);
    accepting_ = loop.AddIo(listener_.Get(), EPOLLIN, [this](std::uint32_t) { OnConnection(); });
}

void ScriptedBroker::OnConnection()
{
    Close();
    connection_ = UniqueFd(::accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    ++connections;
    reading_ = loop_.AddIo(connection_.Get(), EPOLLIN, [this](std::uint32_t) { OnData(); });
}

void ScriptedBroker::Close()
{
    reading_ = {};
    connection_ = UniqueFd();
    arrived_.clear();
}

void ScriptedBroker::OnData()
{
    std::array<char, 65536> buffer{};
    const ssize_t size = ::read(connection_.Get(), buffer.data(), buffer.size());
    if (size <= 0) {
        return Close();
    }
    arrived_.append(buffer.data(), static_cast<std::size_t>(size));
    while (TakePacket()) {
    }
}

bool ScriptedBroker::TakePacket()
{
    std::size_t length = 0;
    std::size_t header = 1;
    for (unsigned shift = 0;; shift += 7) {
        if (arrived_.size() <= header) {
            return false;
        }
        const auto byte = static_cast<unsigned char>(arrived_[header++]);
        length |= static_cast<std::size_t>(byte & 0x7FU) << shift;
        if ((byte & 0x80U) == 0) {
            break;
        }
    }
    if (arrived_.size() < header + length) {
        return false;
    }
    const auto kind = static_cast<unsigned char>(arrived_.front());
    const std::string packet = arrived_.substr(header, length);
    arrived_.erase(0, header + length);
    kinds.push_back(static_cast<char>(kind));
    switch (kind & 0xF0U) {
    case 0x10:
        onConnect(packet);
        break;
    case 0x80:
        onSubscribe(packet);
        break;
    case 0x30:
        onPublish(packet);
        break;
    default:
        break;
    }
    return connection_.Get() >= 0;
}

void ScriptedBroker::Send(std::string_view bytes) const
{
    // The client may have closed the connection.
    const ssize_t sent = ::send(connection_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    EXPECT_TRUE(sent < 0 || static_cast<std::size_t>(sent) == bytes.size());
}

void ScriptedBroker::Accept()
{
    onConnect = [this](std::string_view) { Send(Connack(0)); };
    onSubscribe = [this](std::string_view packet) { Send(Suback(packet, {1})); };
    onPublish = [this](std::string_view packet) { Send(Puback(packet, 0)); };
}

std::string Connack(std::uint8_t reason)
{
    return Packet(0x20, std::string(1, '\0') + static_cast<char>(reason) + '\0');
}

std::string Suback(std::string_view subscribe, const std::vector<std::uint8_t> &reasons)
{
    return Packet(0x90, std::string(subscribe.substr(0, 2)) + '\0' + std::string(reasons.begin(), reasons.end()));
}

std::string Puback(std::string_view publish, std::uint8_t reason)
{
    const auto topic = static_cast<std::size_t>(static_cast<unsigned char>(publish[0]) * 256U +
                                                static_cast<unsigned char>(publish[1]));
    return Packet(0x40, std::string(publish.substr(2 + topic, 2)) + static_cast<char>(reason) + '\0');
}

std::string Disconnect(std::uint8_t reason)
{
    return Packet(0xE0, std::string(1, static_cast<char>(reason)) + '\0');
}

std::string Publish(std::string_view topic, std::string_view payload)
{
    return Packet(0x30, CountedText(topic) + '\0' + std::string(payload));
}

} // namespace kavel::broker

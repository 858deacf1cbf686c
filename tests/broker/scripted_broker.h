// The broker's side of a connection, with answers that a test gives: what a good broker does not do.
#ifndef KAVEL_TESTS_BROKER_SCRIPTED_BROKER_H
#define KAVEL_TESTS_BROKER_SCRIPTED_BROKER_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "event_loop.h"
#include "unique_fd.h"

namespace kavel::broker {

// Listens on the loopback interface, and has one connection at a time. A packet that has no answer is only kept.
class ScriptedBroker {
  public:
    explicit ScriptedBroker(EventLoop &loop);

    [[nodiscard]] std::uint16_t Port() const { return port_; }
    void Send(std::string_view bytes) const;
    // Closes the connection.
    void Close();

    // Each is called with the packet behind its fixed header.
    std::function<void(std::string_view packet)> onConnect = [](std::string_view) {};
    std::function<void(std::string_view packet)> onSubscribe = [](std::string_view) {};
    std::function<void(std::string_view packet)> onPublish = [](std::string_view) {};

    int connections = 0;
    std::string kinds; // the first byte of each packet that has arrived

    // Answers that accept everything.
    void Accept();

  private:
    void OnConnection();
    void OnData();
    // Handles the first packet of what has arrived, if it is complete.
    bool TakePacket();

    EventLoop &loop_;
    UniqueFd listener_;
    UniqueFd connection_;
    std::uint16_t port_ = 0;
    std::string arrived_;
    EventSource accepting_;
    EventSource reading_;
};

// Packets of MQTT 5 without properties.
[[nodiscard]] std::string Connack(std::uint8_t reason);
// To a SUBSCRIBE packet, with one reason for each filter.
[[nodiscard]] std::string Suback(std::string_view subscribe, const std::vector<std::uint8_t> &reasons);
// To a PUBLISH packet.
[[nodiscard]] std::string Puback(std::string_view publish, std::uint8_t reason);
[[nodiscard]] std::string Disconnect(std::uint8_t reason);
[[nodiscard]] std::string Publish(std::string_view topic, std::string_view payload);

} // namespace kavel::broker

#endif

// What the link needs of the agent and of the broker, so that it works without sockets.
#ifndef KAVEL_LINK_PORTS_H
#define KAVEL_LINK_PORTS_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "control.pb-c.h"
#include "session.h"

namespace kavel::link {

// A connection to the agent that carries one request at a time.
class AgentPort {
  public:
    // They are called by the loop, never inside a call of a function of this class.
    struct Events {
        std::function<void()> connected;
        std::function<void(const std::string &why)> closed; // was, or could not be, connected; one line
        std::function<void(const Kavel__Reply &reply)> answered;
    };

    AgentPort() = default;
    AgentPort(const AgentPort &) = delete;
    AgentPort &operator=(const AgentPort &) = delete;
    virtual ~AgentPort() = default;

    // Connects, and connects again after each failure, until the destructor. Called once.
    virtual void Start(Events events) = 0;
    // Only while connected, and while no other request is under way. `request` may point at memory that ends with the
    // call. Either `answered` or `closed` follows.
    virtual void Send(const Kavel__Request &request) = 0;
};

// The connection to the broker, as broker::Session has it.
class BrokerPort {
  public:
    BrokerPort() = default;
    BrokerPort(const BrokerPort &) = delete;
    BrokerPort &operator=(const BrokerPort &) = delete;
    virtual ~BrokerPort() = default;

    // Publishes retained. Nothing while there is no connection.
    [[nodiscard]] virtual std::optional<std::uint64_t> Publish(const broker::Message &message) = 0;
    // The broker sends the retained message of the topic, which is among those that are subscribed to, once more.
    virtual void AskAgain(const std::string &topic) = 0;
};

} // namespace kavel::link

#endif

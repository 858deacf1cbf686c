// The connection to an MQTT 5 broker. A thin layer over libmosquitto that runs in the event loop, connects again after
// a failure, and tells what happened. Nothing blocks the loop but the resolver, once in each attempt to connect, if the
// host is a name.
#ifndef KAVEL_BROKER_SESSION_H
#define KAVEL_BROKER_SESSION_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "backoff.h"
#include "event_loop.h"

namespace kavel::broker {

// How to reach and to trust the broker. The files are PEM files. They are read for each connection: a renewed
// certificate counts for the next one.
struct Endpoint {
    std::string host; // a name or an address; the broker's certificate must be for it
    std::uint16_t port = 8883;
    std::string ca{};          // that the broker's certificate must come from; empty: no TLS, for tests alone
    std::string certificate{}; // of this client; empty: it has none
    std::string key{};         // of the certificate, without a pass phrase; readable by the client alone
};

// A message to publish, or one that has arrived.
struct Message {
    std::string topic;
    std::vector<std::uint8_t> payload;
    bool isRetained = false; // of one that has arrived: the broker had it stored. All that is published is retained.
    std::map<std::string, std::string> properties{}; // user properties; of two with one name the first counts, and of
                                                     // one that has arrived only the first 32
};

// An endpoint cannot be used: a file cannot be read, or the key does not fit the certificate. One line.
class SessionError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Each connection is a clean start without a stored session: what the client wants it subscribes to each time, and the
// broker sends the retained messages then. QoS 1 both ways. The first session of a process makes the process ignore
// SIGPIPE. A process may have many sessions; each has three descriptors more than its connection.
class Session {
  public:
    struct Options {
        Endpoint endpoint;
        std::string clientId;
        std::vector<std::string> filters{}; // subscribed to after each connection
        std::optional<Message> will{};      // retained, QoS 1
        std::uint16_t keepAliveSeconds = 30;
        std::uint16_t receiveMaximum = 8;            // messages that the broker may send before they are acknowledged
        std::uint32_t packetMax = 32U * 1024 * 1024; // bytes; the broker does not send a larger one
    };

    // Each may be empty. They are called by the loop, never inside a call of a function of this class; they may call
    // the functions of this class, and may destroy the object.
    struct Events {
        // The filters are subscribed to. A broker that refuses one ends up in `closed`.
        std::function<void()> connected;
        // Was, or could not be, connected; one line. Once for each attempt and each connection.
        std::function<void(const std::string &why)> closed;
        std::function<void(Message message)> received; // between `connected` and `closed`
        // Acknowledged by the broker. `problem`: refused, or it cannot be sent; one line, or else empty.
        std::function<void(std::uint64_t publication, const std::string &problem)> published;
    };

    // `loop` must outlive this object. Nothing happens before Start(). Throws SessionError: a file of the endpoint
    // cannot be used now. Later that is told as `closed`.
    Session(EventLoop &loop, Options options, Events events);
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;
    // Closes the connection without a word: the broker publishes the will.
    ~Session();

    // Connects, and connects again after each failure, with Backoff, until Stop() or the destructor. An attempt lasts
    // 15 s at most. Nothing if it is started already; a session that stops can be started again after `onDone`.
    void Start();
    // Says goodbye, so that the broker does not publish the will, and calls `onDone` in the loop when that is sent,
    // after 2 s at the latest. Publications that are not acknowledged are forgotten; they may arrive all the same. A
    // second call replaces `onDone`.
    void Stop(std::function<void()> onDone);

    [[nodiscard]] bool IsConnected() const;

    // Publishes with QoS 1, retained. Returns the number that Events::published names. Nothing, and nothing is sent,
    // while there is no connection: what was published and not acknowledged when a connection ends is forgotten, too.
    // The publisher must say it again.
    [[nodiscard]] std::optional<std::uint64_t> Publish(const Message &message);

    // Subscribe during this connection, besides the filters of the options, in one request. A broker may save its file
    // after each request. There is at least one filter.
    void Subscribe(const std::vector<std::string> &filters);
    void Unsubscribe(const std::vector<std::string> &filters);

  private:
    class Connection;

    std::shared_ptr<Connection> connection_;
};

} // namespace kavel::broker

#endif

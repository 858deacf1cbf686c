// One connection to the broker: libmosquitto without threads, in C++. It is used for one attempt to connect, and for
// what comes of it.
#ifndef KAVEL_BROKER_MQTT_CLIENT_H
#define KAVEL_BROKER_MQTT_CLIENT_H

#include <cstdint>
#include <exception>
#include <memory>
#include <mosquitto.h>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "session.h"
#include "tls_context.h"

namespace kavel::broker {

class MqttClient {
  public:
    // What happens during Read(), Write() and Tend(). A function may throw: the exception leaves these three. The
    // client must not be destroyed in a function.
    class Handler {
      public:
        Handler() = default;
        Handler(const Handler &) = delete;
        Handler &operator=(const Handler &) = delete;
        virtual ~Handler() = default;

        virtual void OnAccepted() = 0;
        // `codes`: of each filter of the request, the reason code of the broker.
        virtual void OnSubscribed(int request, std::span<const int> codes) = 0;
        // `problem`: refused, one line, or else empty.
        virtual void OnPublished(int request, const std::string &problem) = 0;
        virtual void OnMessage(Message message) = 0;
    };

    // What became of a request to publish. Neither: the connection has failed.
    struct Submitted {
        std::optional<int> request; // the number for OnPublished()
        std::string problem;        // the message cannot be sent; one line
    };

    // `options` and `handler` must outlive this object. Throws SessionError.
    MqttClient(const Session::Options &options, Handler &handler);
    MqttClient(const MqttClient &) = delete;
    MqttClient &operator=(const MqttClient &) = delete;
    ~MqttClient() = default;

    // Begins to connect. `onlyIpv4`: not to an address of IPv6, if the host has one of IPv4, too. The resolver blocks.
    void Connect(bool onlyIpv4);
    // The socket of the connection, which is this object's; -1: there is none.
    [[nodiscard]] int Socket() const { return mosquitto_socket(client_.get()); }
    [[nodiscard]] bool WantsWrite() const { return mosquitto_want_write(client_.get()); }

    // To be called when the socket is readable or has failed, when it is writable, and once in a second.
    void Read();
    void Write();
    void Tend();

    void Subscribe(const std::vector<std::string> &filters, int &request);
    void Unsubscribe(const std::vector<std::string> &filters);
    [[nodiscard]] Submitted Publish(const Message &message);
    // Says goodbye: the connection ends when that is written.
    void Disconnect();

    // The connection cannot be used any more.
    [[nodiscard]] bool HasFailed() const { return problem_.has_value(); }
    // Why; one line.
    [[nodiscard]] std::string Problem() const { return problem_.value_or(""); }
    // The first problem counts.
    void SetProblem(const std::string &problem);

  private:
    struct Destroy {
        void operator()(mosquitto *client) const { mosquitto_destroy(client); }
    };

    template <typename Work>
    static void Guard(void *self, Work work) noexcept;
    static void OnConnect(mosquitto *client, void *self, int code, int flags, const mosquitto_property *properties);
    static void OnDisconnect(mosquitto *client, void *self, int code, const mosquitto_property *properties);
    static void OnSubscribe(mosquitto *client, void *self, int request, int count, const int *codes,
                            const mosquitto_property *properties);
    static void OnPublish(mosquitto *client, void *self, int request, int code, const mosquitto_property *properties);
    static void OnMessage(mosquitto *client, void *self, const mosquitto_message *message,
                          const mosquitto_property *properties);
    static void OnLog(mosquitto *client, void *self, int level, const char *text);

    void SetCallbacks();
    void SetOptions();
    void SetWill(const Message &will);
    [[nodiscard]] int BeginConnect(const char *bindAddress);
    // Keeps why the connection has failed, if it has, and throws what a handler has thrown. `error`: the errno of the
    // call that returned `code`.
    void Examine(int code, int error);
    [[nodiscard]] std::string ProblemOf(int code, int error) const;
    [[nodiscard]] std::string SystemProblem(int error) const;

    const Session::Options &options_;
    Handler &handler_;
    std::unique_ptr<TlsContext> tls_; // null: without
    std::string tlsProblem_;          // the first error of OpenSSL that libmosquitto has logged
    std::optional<std::string> problem_;
    bool isAccepted_ = false;               // by the broker
    int disconnectCode_ = MOSQ_ERR_SUCCESS; // what libmosquitto said about the end of the connection
    std::exception_ptr thrown_;
    std::unique_ptr<mosquitto, Destroy> client_;
};

} // namespace kavel::broker

#endif

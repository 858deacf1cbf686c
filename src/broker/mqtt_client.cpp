#include "mqtt_client.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <mqtt_protocol.h>
#include <netdb.h>
#include <new>
#include <string_view>
#include <system_error>
#include <utility>

#include "printable.h"

namespace kavel::broker {

namespace {

constexpr int kQos = 1;
constexpr int kReasonOfRefusal = 128; // the first reason code that stands for a failure
// Of a message that arrives; more are passed over.
constexpr std::size_t kPropertiesMax = 32;

constexpr const char *kClosed = "the connection was closed";
// OpenSSL's words for it.
constexpr std::string_view kEndOfTls = "unexpected eof while reading";

// Once in a process. OpenSSL writes to a socket without MSG_NOSIGNAL.
void InitLibrary()
{
    static const bool kIsReady = mosquitto_lib_init() == MOSQ_ERR_SUCCESS && std::signal(SIGPIPE, SIG_IGN) != SIG_ERR;
    if (!kIsReady) {
        throw SessionError("the MQTT library cannot be initialized");
    }
}

// Of the calls that fail only without memory.
void ExpectDone(int code)
{
    if (code == MOSQ_ERR_NOMEM) {
        throw std::bad_alloc();
    }
    if (code != MOSQ_ERR_SUCCESS) {
        throw SessionError(mosquitto_strerror(code));
    }
}

struct FreeProperties {
    void operator()(mosquitto_property *properties) const { mosquitto_property_free_all(&properties); }
};
using PropertyList = std::unique_ptr<mosquitto_property, FreeProperties>;

struct FreeText {
    void operator()(char *text) const { std::free(text); }
};
using CText = std::unique_ptr<char, FreeText>;

// Nothing is added to a list but by this: a failure leaves the list as it was.
template <typename Add>
void AddProperty(PropertyList &list, Add add)
{
    mosquitto_property *properties = list.release();
    const int code = add(&properties);
    list.reset(properties);
    ExpectDone(code);
}

PropertyList UserProperties(const Message &message)
{
    PropertyList list;
    for (const auto &property : message.properties) {
        AddProperty(list, [&property](mosquitto_property **properties) {
            return mosquitto_property_add_string_pair(properties, MQTT_PROP_USER_PROPERTY, property.first.c_str(),
                                                      property.second.c_str());
        });
    }
    return list;
}

std::map<std::string, std::string> ReadUserProperties(const mosquitto_property *properties)
{
    std::map<std::string, std::string> read;
    bool isBehindFirst = false;
    for (std::size_t i = 0; i < kPropertiesMax; ++i) {
        char *name = nullptr;
        char *value = nullptr;
        properties =
            mosquitto_property_read_string_pair(properties, MQTT_PROP_USER_PROPERTY, &name, &value, isBehindFirst);
        const CText ownedName(name);
        const CText ownedValue(value);
        if (properties == nullptr || name == nullptr || value == nullptr) {
            break;
        }
        read.emplace(name, value);
        isBehindFirst = true;
    }
    return read;
}

// "Not authorized", with what the broker says besides.
std::string ReasonText(int code, const mosquitto_property *properties)
{
    std::string text = mosquitto_reason_string(code);
    char *said = nullptr;
    mosquitto_property_read_string(properties, MQTT_PROP_REASON_STRING, &said, false);
    const CText owned(said);
    return said != nullptr ? text + ": " + said : text;
}

// What is wrong with the message, not with the connection.
bool IsProblemOfMessage(int code)
{
    switch (code) {
    case MOSQ_ERR_INVAL:
    case MOSQ_ERR_PAYLOAD_SIZE:
    case MOSQ_ERR_MALFORMED_UTF8:
    case MOSQ_ERR_OVERSIZE_PACKET:
    case MOSQ_ERR_QOS_NOT_SUPPORTED:
    case MOSQ_ERR_RETAIN_NOT_SUPPORTED:
        return true;
    default:
        return false;
    }
}

// libmosquitto sends them as they are, and the broker closes the connection.
bool AreText(const std::map<std::string, std::string> &properties)
{
    const auto isText = [](const std::string &text) {
        return text.size() <= UINT16_MAX && mosquitto_validate_utf8(text.data(), static_cast<int>(text.size())) == 0;
    };
    return std::ranges::all_of(properties, [&](const auto &each) { return isText(each.first) && isText(each.second); });
}

// As libmosquitto wants them, which only reads them.
std::vector<char *> TextsOf(const std::vector<std::string> &filters)
{
    std::vector<char *> texts;
    texts.reserve(filters.size());
    for (const std::string &filter : filters) {
        texts.push_back(const_cast<char *>(filter.c_str())); // NOLINT(cppcoreguidelines-pro-type-const-cast): see above
    }
    return texts;
}

int PayloadLength(const Message &message)
{
    return message.payload.size() <= INT_MAX ? static_cast<int>(message.payload.size()) : INT_MAX;
}

} // namespace

MqttClient::MqttClient(const Session::Options &options, Handler &handler) : options_(options), handler_(handler)
{
    InitLibrary();
    if (!options.endpoint.ca.empty()) {
        tls_ = std::make_unique<TlsContext>(options.endpoint);
    }
    client_.reset(mosquitto_new(options.clientId.empty() ? nullptr : options.clientId.c_str(), true, this));
    if (!client_) {
        throw std::bad_alloc();
    }
    SetCallbacks();
    SetOptions();
    if (options.will) {
        SetWill(*options.will);
    }
}

void MqttClient::SetCallbacks()
{
    mosquitto *const client = client_.get();
    mosquitto_connect_v5_callback_set(client, OnConnect);
    mosquitto_disconnect_v5_callback_set(client, OnDisconnect);
    mosquitto_subscribe_v5_callback_set(client, OnSubscribe);
    mosquitto_publish_v5_callback_set(client, OnPublish);
    mosquitto_message_v5_callback_set(client, OnMessage);
    mosquitto_log_callback_set(client, OnLog);
}

void MqttClient::SetOptions()
{
    mosquitto *const client = client_.get();
    ExpectDone(mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5));
    ExpectDone(mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1));
    ExpectDone(mosquitto_int_option(client, MOSQ_OPT_RECEIVE_MAXIMUM, options_.receiveMaximum));
    // Session limits what is sent at once. The broker may want less: libmosquitto holds the rest back.
    ExpectDone(mosquitto_int_option(client, MOSQ_OPT_SEND_MAXIMUM, UINT16_MAX));
    if (tls_) {
        ExpectDone(mosquitto_void_option(client, MOSQ_OPT_SSL_CTX, tls_->Get()));
        // Else libmosquitto wants a file with authorities, too.
        ExpectDone(mosquitto_int_option(client, MOSQ_OPT_SSL_CTX_WITH_DEFAULTS, 0));
    }
    PropertyList properties;
    AddProperty(properties, [this](mosquitto_property **list) {
        return mosquitto_property_add_int32(list, MQTT_PROP_MAXIMUM_PACKET_SIZE, options_.packetMax);
    });
    // The connect that does not block takes no properties, but it sends those of a call before. This one keeps the
    // properties, and ends because it has no host.
    (void)mosquitto_connect_bind_v5(client, nullptr, 0, 0, nullptr, properties.get());
}

void MqttClient::SetWill(const Message &will)
{
    PropertyList properties = UserProperties(will);
    ExpectDone(mosquitto_will_set_v5(client_.get(), will.topic.c_str(), PayloadLength(will), will.payload.data(), kQos,
                                     true, properties.get()));
    (void)properties.release(); // libmosquitto's now
}

int MqttClient::BeginConnect(const char *bindAddress)
{
    if (bindAddress != nullptr) {
        ExpectDone(mosquitto_string_option(client_.get(), MOSQ_OPT_BIND_ADDRESS, bindAddress));
    }
    return mosquitto_connect_bind_async(client_.get(), options_.endpoint.host.c_str(), options_.endpoint.port,
                                        options_.keepAliveSeconds, nullptr);
}

void MqttClient::Connect(bool onlyIpv4)
{
    // A socket with a local address of IPv4 cannot connect to one of IPv6: libmosquitto goes on to the next address.
    int code = BeginConnect(onlyIpv4 ? "0.0.0.0" : nullptr);
    if (code != MOSQ_ERR_SUCCESS && onlyIpv4) {
        // The addresses of IPv6 are left. Not without a local address: libmosquitto would free the one before twice.
        code = BeginConnect("::");
    }
    Examine(code, errno);
}

void MqttClient::Read()
{
    const int code = mosquitto_loop_read(client_.get(), 1);
    Examine(code, errno);
}

void MqttClient::Write()
{
    const int code = mosquitto_loop_write(client_.get(), 1);
    Examine(code, errno);
}

void MqttClient::Tend()
{
    const int code = mosquitto_loop_misc(client_.get());
    Examine(code, errno);
}

void MqttClient::Subscribe(const std::vector<std::string> &filters, int &request)
{
    const std::vector<char *> texts = TextsOf(filters);
    const int code = mosquitto_subscribe_multiple(client_.get(), &request, static_cast<int>(texts.size()), texts.data(),
                                                  kQos, 0, nullptr);
    Examine(code, errno);
}

void MqttClient::Unsubscribe(const std::vector<std::string> &filters)
{
    const std::vector<char *> texts = TextsOf(filters);
    const int code =
        mosquitto_unsubscribe_multiple(client_.get(), nullptr, static_cast<int>(texts.size()), texts.data(), nullptr);
    Examine(code, errno);
}

MqttClient::Submitted MqttClient::Publish(const Message &message)
{
    if (!AreText(message.properties)) {
        return {std::nullopt, "a user property is not text, or too long"};
    }
    const PropertyList properties = UserProperties(message);
    int request = 0;
    const int code = mosquitto_publish_v5(client_.get(), &request, message.topic.c_str(), PayloadLength(message),
                                          message.payload.data(), kQos, true, properties.get());
    const int error = errno;
    if (IsProblemOfMessage(code)) {
        return {std::nullopt, mosquitto_strerror(code)};
    }
    Examine(code, error);
    return {code == MOSQ_ERR_SUCCESS ? std::optional(request) : std::nullopt, {}};
}

void MqttClient::Disconnect()
{
    const int code = mosquitto_disconnect_v5(client_.get(), MQTT_RC_NORMAL_DISCONNECTION, nullptr);
    Examine(code, errno);
}

void MqttClient::SetProblem(const std::string &problem)
{
    if (!problem_) {
        problem_ = Printable(problem);
    }
}

void MqttClient::Examine(int code, int error)
{
    if (thrown_) {
        std::rethrow_exception(std::exchange(thrown_, nullptr));
    }
    if (code == MOSQ_ERR_NOMEM) {
        throw std::bad_alloc();
    }
    // libmosquitto does not notice that the socket fails during the handshake.
    const bool hasSocketFailed = tls_ && tls_->SocketError() != 0;
    if (code != MOSQ_ERR_SUCCESS || Socket() < 0 || hasSocketFailed) {
        SetProblem(ProblemOf(code != MOSQ_ERR_SUCCESS ? code : disconnectCode_, error));
    }
}

std::string MqttClient::SystemProblem(int error) const
{
    return (isAccepted_ ? "" : "cannot connect: ") + std::generic_category().message(error);
}

std::string MqttClient::ProblemOf(int code, int error) const
{
    if (tls_ && !tls_->CertificateProblem().empty()) {
        return "the certificate of the broker is not accepted: " + tls_->CertificateProblem();
    }
    if (!tlsProblem_.empty()) {
        return tlsProblem_ == kEndOfTls ? kClosed : "TLS: " + tlsProblem_;
    }
    if (tls_ && tls_->SocketError() != 0) {
        return SystemProblem(tls_->SocketError());
    }
    switch (code) {
    case MOSQ_ERR_ERRNO:
        return SystemProblem(error);
    case MOSQ_ERR_EAI:
        return "cannot resolve " + options_.endpoint.host + ": " + gai_strerror(error);
    case MOSQ_ERR_SUCCESS:
    case MOSQ_ERR_NO_CONN:
    case MOSQ_ERR_CONN_LOST:
        return kClosed;
    case MOSQ_ERR_KEEPALIVE:
        return "the broker does not answer";
    default:
        return mosquitto_strerror(code);
    }
}

// No exception may pass through libmosquitto. After the first one nothing more is told to the handler.
template <typename Work>
void MqttClient::Guard(void *self, Work work) noexcept
{
    auto &client = *static_cast<MqttClient *>(self);
    if (client.thrown_) {
        return;
    }
    try {
        work(client);
    } catch (...) {
        client.thrown_ = std::current_exception();
    }
}

void MqttClient::OnConnect(mosquitto * /*client*/, void *self, int code, int /*flags*/,
                           const mosquitto_property *properties)
{
    Guard(self, [&](MqttClient &client) {
        if (code != MQTT_RC_SUCCESS) {
            client.SetProblem("the broker refuses the connection: " + ReasonText(code, properties));
            return;
        }
        client.isAccepted_ = true;
        client.handler_.OnAccepted();
    });
}

// `code` is a reason code of MQTT, or an error of libmosquitto, which are below.
void MqttClient::OnDisconnect(mosquitto * /*client*/, void *self, int code, const mosquitto_property *properties)
{
    Guard(self, [&](MqttClient &client) {
        client.disconnectCode_ = code;
        if (code >= kReasonOfRefusal) {
            client.SetProblem("the broker closed the connection: " + ReasonText(code, properties));
        }
    });
}

void MqttClient::OnSubscribe(mosquitto * /*client*/, void *self, int request, int count, const int *codes,
                             const mosquitto_property * /*properties*/)
{
    Guard(self, [&](MqttClient &client) {
        client.handler_.OnSubscribed(request, std::span(codes, static_cast<std::size_t>(count)));
    });
}

void MqttClient::OnPublish(mosquitto * /*client*/, void *self, int request, int code,
                           const mosquitto_property *properties)
{
    Guard(self, [&](MqttClient &client) {
        client.handler_.OnPublished(request,
                                    code >= kReasonOfRefusal ? Printable(ReasonText(code, properties)) : std::string());
    });
}

void MqttClient::OnMessage(mosquitto * /*client*/, void *self, const mosquitto_message *message,
                           const mosquitto_property *properties)
{
    Guard(self, [&](MqttClient &client) {
        const std::span payload(static_cast<const std::uint8_t *>(message->payload),
                                static_cast<std::size_t>(message->payloadlen));
        client.handler_.OnMessage({.topic = message->topic,
                                   .payload = {payload.begin(), payload.end()},
                                   .isRetained = message->retain,
                                   .properties = ReadUserProperties(properties)});
    });
}

// An error of OpenSSL is nowhere but in the log: "OpenSSL Error[0]: error:0A000415:SSL routines::certificate expired".
void MqttClient::OnLog(mosquitto * /*client*/, void *self, int /*level*/, const char *text)
{
    Guard(self, [text](MqttClient &client) {
        const std::string_view line = text;
        if (line.starts_with("OpenSSL Error") && client.tlsProblem_.empty()) {
            client.tlsProblem_ = line.substr(line.rfind(':') + 1);
        }
    });
}

} // namespace kavel::broker

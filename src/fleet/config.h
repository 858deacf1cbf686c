// How the controller reaches the broker: /etc/kavel/fleet.json and the options of the command line.
//
//   {"broker": {"host": "broker.example", "port": 8883, "ca": "/etc/kavel/fleet/ca.pem",
//               "certificate": "/etc/kavel/fleet/controller.pem", "key": "/etc/kavel/fleet/controller.key"},
//    "name": "controller"}
#ifndef KAVEL_FLEET_CONFIG_H
#define KAVEL_FLEET_CONFIG_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "session.h"

namespace kavel::fleet {

inline constexpr const char *kDefaultConfig = "/etc/kavel/fleet.json";

// What the command line says; what it does not say the file does.
struct BrokerOptions {
    std::optional<std::string> config; // absent: kDefaultConfig, which need not exist
    std::optional<std::string> host;
    std::optional<std::uint16_t> port;
    std::optional<std::string> ca;
    std::optional<std::string> certificate;
    std::optional<std::string> key;
    std::optional<std::string> name;
};

struct Settings {
    broker::Endpoint endpoint;
    // The common name of the certificate, unless another name is configured. It is one level of the topic of marks, see
    // connection.h, and part of the client's name at the broker.
    std::string name;
};

// Settings without a host or a name, and the members that a text sets. Throws InputError.
[[nodiscard]] Settings ParseSettings(const std::string &text);

// The settings of the file and the options. Throws InputError: the file cannot be read or understood, or the host, the
// CA, the certificate or the key are not set.
[[nodiscard]] Settings LoadSettings(const BrokerOptions &options);

// Whether `name` can be a level of a topic: 1 to 64 bytes of printable text without '/', '+', '#', not beginning with
// '$'.
[[nodiscard]] bool IsClientName(std::string_view name);

// The common name of the certificate in a PEM file. Throws InputError with the name of the file.
[[nodiscard]] std::string CommonNameOf(const std::string &file);

} // namespace kavel::fleet

#endif

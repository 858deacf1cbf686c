// Unpacks a controller's message.
#ifndef KAVEL_AGENT_CONTROLLER_MESSAGE_H
#define KAVEL_AGENT_CONTROLLER_MESSAGE_H

#include <protobuf-c/protobuf-c.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "advanced_dns.pb-c.h"
#include "base/config.h"
#include "vqCtrlAdvancedDns.h"

namespace kavel::agent {

struct ProtobufRelease {
    void operator()(ProtobufCMessage *message) const { protobuf_c_message_free_unpacked(message, nullptr); }
};
using ProtobufMessage = std::unique_ptr<ProtobufCMessage, ProtobufRelease>;

// The message; null when the bytes are not one of this type, or when unpacking it would take more than 256 MiB.
[[nodiscard]] ProtobufMessage UnpackProtobuf(const ProtobufCMessageDescriptor &type,
                                             std::span<const std::uint8_t> bytes);

struct ControllerMessage {
    ProtobufMessage content;
    VQ_CTRL_DNSMASQ_CONFIG_PB pointer{}; // into `content`, for the module
    std::uint32_t vpn = 0;
    bool enables = false;  // once it is applied, an instance is meant to run
    bool reloads = false;  // applying it signals the running instance
    bool launches = false; // applying it starts an instance
    bool isKept = false;   // it asks to be stored
};

// The message that controllers send to boxes of this platform; nothing when the bytes are not one.
[[nodiscard]] std::optional<ControllerMessage> UnpackControllerMessage(Platform platform,
                                                                       std::span<const std::uint8_t> bytes);

// The bytes of a message that starts its instance also if it asked for a reload. Bytes that are no message stay as they
// are.
[[nodiscard]] std::vector<std::uint8_t> WithStart(Platform platform, std::vector<std::uint8_t> bytes);

} // namespace kavel::agent

#endif

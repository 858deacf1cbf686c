// A controller's message, unpacked.
#ifndef KAVEL_AGENT_CONTROLLER_MESSAGE_H
#define KAVEL_AGENT_CONTROLLER_MESSAGE_H

#include <protobuf-c/protobuf-c.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "advanced_dns.pb-c.h"
#include "base/config.h"
#include "instances/module.h"

namespace kavel::agent {

struct ProtobufRelease {
    void operator()(ProtobufCMessage *message) const { protobuf_c_message_free_unpacked(message, nullptr); }
};
using ProtobufMessage = std::unique_ptr<ProtobufCMessage, ProtobufRelease>;

// Null for bytes that are no such message, and for those that would take an unreasonable amount of memory.
ProtobufMessage UnpackProtobuf(const ProtobufCMessageDescriptor &type, std::span<const std::uint8_t> bytes);

struct ControllerMessage {
    ProtobufMessage content;
    MessagePointer pointer{}; // into `content`, for the module
    std::uint32_t vpn = 0;
    bool enables = false;  // once it is applied, an instance is meant to run
    bool reloads = false;  // applying it signals the running instance
    bool launches = false; // applying it starts an instance
};

// The message that controllers send to boxes of this platform; nothing when the bytes are not one.
std::optional<ControllerMessage> UnpackControllerMessage(Platform platform, std::span<const std::uint8_t> bytes);

// Why a server of a CPE message may not reach the module: its interface name, which the module writes into an
// instance's configuration as it comes, holds what no interface's name can. One with a line break would be options of
// the controller's choice. Nothing when all are in order.
std::optional<std::string> InterfaceNameHazard(const DnsmasqConf &message);

} // namespace kavel::agent

#endif

// Packed controller messages that the agent has sent.
#ifndef KAVEL_CTL_PACKED_CONF_H
#define KAVEL_CTL_PACKED_CONF_H

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "advanced_dns.pb-c.h"
#include "control.pb-c.h"

namespace kavel::ctl {

struct PackedConf {
    std::span<const std::uint8_t> bytes; // of a DnsmasqConf, or a PopDnsmasqConf for a POP
    bool isForPop = false;
};

struct CpeRelease {
    void operator()(DnsmasqConf *message) const { dnsmasq_conf__free_unpacked(message, nullptr); }
};
using CpeConf = std::unique_ptr<DnsmasqConf, CpeRelease>;

struct PopRelease {
    void operator()(PopDnsmasqConf *message) const { pop_dnsmasq_conf__free_unpacked(message, nullptr); }
};
using PopConf = std::unique_ptr<PopDnsmasqConf, PopRelease>;

// Throw AgentError if the bytes are not such a message.
[[nodiscard]] CpeConf UnpackCpe(const PackedConf &packed);
[[nodiscard]] PopConf UnpackPop(const PackedConf &packed);

// The message in a reply to IN_FORCE that is no refusal; nothing when nothing is in force. It points into the reply.
[[nodiscard]] std::optional<PackedConf> InForceIn(const Kavel__Reply &reply);

// The bytes of a CPE's message with another operation. Throws AgentError.
[[nodiscard]] std::vector<std::uint8_t> WithOperation(const PackedConf &packed, std::uint32_t operation);

} // namespace kavel::ctl

#endif

// Packed controller messages that the agent has sent.
#ifndef KAVEL_CTL_PACKED_CONF_H
#define KAVEL_CTL_PACKED_CONF_H

#include <cstdint>
#include <memory>
#include <span>

#include "advanced_dns.pb-c.h"

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

} // namespace kavel::ctl

#endif

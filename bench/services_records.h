// Makes records of a VPN and their stored text.
#ifndef BENCH_SERVICES_RECORDS_H
#define BENCH_SERVICES_RECORDS_H

#include <cstdint>
#include <string>

#include "vqDnsmasqConf.h"

namespace kavel::bench {

struct Amounts {
    std::uint16_t hosts;
    std::uint16_t mxHosts;
    std::uint8_t servers;
    std::uint16_t forwards;
};

inline constexpr Amounts kOrdinary{20, 2, 2, 20};
inline constexpr Amounts kLarge{VQ_DNS_HOST_MAX, 128, VQ_DNS_SERVER_MAX, 8192};

// Fills a zeroed record. The last octet of every address is `octet`.
void FillRecord(std::uint32_t vpn, const Amounts &amounts, std::uint8_t octet, VQ_DNSMASQ_CONF &record);

// The text that the module stores for such a record. The first call loads the module.
std::string RecordText(std::uint32_t vpn, const Amounts &amounts, std::uint8_t octet);

} // namespace kavel::bench

#endif

// Asks instances whether they answer.
#ifndef KAVEL_AGENT_DNS_PROBE_H
#define KAVEL_AGENT_DNS_PROBE_H

#include <chrono>
#include <cstdint>
#include <set>
#include <vector>

namespace kavel::agent {

// Those of `vpnIds` in whose namespace 127.0.0.1 answers a DNS query over UDP. All are asked at once.
std::set<std::uint32_t> AnsweringVpns(const std::vector<std::uint32_t> &vpnIds, std::chrono::milliseconds patience);

} // namespace kavel::agent

#endif

// Questions and answers of the DNS, as they are on the wire.
#ifndef KAVEL_AGENT_DNS_MESSAGE_H
#define KAVEL_AGENT_DNS_MESSAGE_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kavel::agent {

inline constexpr std::uint8_t kNoSuchName = 3; // the rcode NXDOMAIN

// A question of the class IN that asks for recursion. Nothing when `name` is no domain name: it is empty, a label is
// empty or has more than 63 bytes, or the name takes more than 255. A dot at the end changes nothing; "." is the root.
[[nodiscard]] std::optional<std::vector<std::uint8_t>> EncodeDnsQuestion(std::string_view name, std::uint16_t type,
                                                                         std::uint16_t id);

struct DnsAnswer {
    std::uint8_t rcode = 0;
    bool isTruncated = false;
    std::vector<std::string> records; // of the answer section: "www.example A 192.0.2.1"
    std::vector<std::string> strings; // of its TXT records, as they are
};

// The answer to the question with this id. Nothing when `message` is another one or is malformed. Bytes of names and
// texts that are no printable ASCII are written as \DDD.
[[nodiscard]] std::optional<DnsAnswer> DecodeDnsAnswer(std::span<const std::uint8_t> message, std::uint16_t id);

} // namespace kavel::agent

#endif

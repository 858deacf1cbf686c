// The types of DNS records, by name and number.
#ifndef KAVEL_COMMON_DNS_TYPES_H
#define KAVEL_COMMON_DNS_TYPES_H

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "number.h"

namespace kavel {

enum class DnsType : std::uint16_t {
    kA = 1,
    kNs = 2,
    kCname = 5,
    kSoa = 6,
    kPtr = 12,
    kMx = 15,
    kTxt = 16,
    kAaaa = 28,
    kSrv = 33,
    kAny = 255, // in a question only
};

struct NamedDnsType {
    std::string_view name;
    DnsType type;
};

inline constexpr std::array<NamedDnsType, 10> kDnsTypes = {{
    {"A", DnsType::kA},
    {"NS", DnsType::kNs},
    {"CNAME", DnsType::kCname},
    {"SOA", DnsType::kSoa},
    {"PTR", DnsType::kPtr},
    {"MX", DnsType::kMx},
    {"TXT", DnsType::kTxt},
    {"AAAA", DnsType::kAaaa},
    {"SRV", DnsType::kSrv},
    {"ANY", DnsType::kAny},
}};

inline constexpr std::string_view kOtherDnsType = "TYPE"; // and the number

// "MX"; "TYPE65" for a type that has no name here.
[[nodiscard]] inline std::string DnsTypeName(std::uint16_t number)
{
    const auto *const found = std::ranges::find(kDnsTypes, static_cast<DnsType>(number), &NamedDnsType::type);
    return found != kDnsTypes.end() ? std::string(found->name) : std::string(kOtherDnsType) + std::to_string(number);
}

// The reverse, in any case of letters; nothing for other texts.
[[nodiscard]] inline std::optional<std::uint16_t> DnsTypeNumber(std::string_view text)
{
    std::string upper(text);
    std::ranges::transform(upper, upper.begin(), [](unsigned char letter) { return std::toupper(letter); });
    if (const auto *const found = std::ranges::find(kDnsTypes, upper, &NamedDnsType::name); found != kDnsTypes.end()) {
        return static_cast<std::uint16_t>(found->type);
    }
    return upper.starts_with(kOtherDnsType) ? WholeNumber<std::uint16_t>(upper.substr(kOtherDnsType.size()))
                                            : std::nullopt;
}

} // namespace kavel

#endif

#include "base/dns_message.h"

#include <arpa/inet.h>

#include <array>
#include <cstddef>
#include <stdexcept>

#include "base/dns_name.h"
#include "dns_types.h"

namespace kavel::agent {
namespace {

constexpr std::size_t kNameMax = 255;
constexpr std::uint8_t kRecursionDesired = 0x01;
constexpr std::uint8_t kResponse = 0x80;
constexpr std::uint8_t kTruncated = 0x02;
constexpr std::uint8_t kRcodeMask = 0x0F;
constexpr std::uint8_t kPointer = 0xC0; // a label that refers to an earlier place
constexpr std::size_t kTtlSize = 4;

void AppendNumber(std::vector<std::uint8_t> &bytes, std::uint16_t number)
{
    bytes.push_back(static_cast<std::uint8_t>(number >> 8U));
    bytes.push_back(static_cast<std::uint8_t>(number));
}

// Appends labels and the root. False when the name is none.
bool AppendName(std::vector<std::uint8_t> &bytes, std::string_view name)
{
    const std::size_t start = bytes.size();
    if (name == ".") {
        name = {};
    } else if (name.empty()) {
        return false;
    } else if (name.ends_with('.')) {
        name.remove_suffix(1);
    }
    while (!name.empty()) {
        const std::string_view label = name.substr(0, name.find('.'));
        if (label.empty() || label.size() > kLabelMax || label.size() + 1 == name.size()) {
            return false;
        }
        bytes.push_back(static_cast<std::uint8_t>(label.size()));
        bytes.insert(bytes.end(), label.begin(), label.end());
        name.remove_prefix(std::min(label.size() + 1, name.size()));
    }
    bytes.push_back(0);
    return bytes.size() - start <= kNameMax;
}

class Malformed : public std::runtime_error {
  public:
    Malformed() : std::runtime_error("malformed DNS message") {}
};

// Appends a byte of a name or a text, for people.
void AppendByte(std::string &text, std::uint8_t byte, std::string_view special)
{
    constexpr std::uint8_t kFirstPrintable = 0x21;
    constexpr std::uint8_t kLastPrintable = 0x7E;
    constexpr unsigned kTen = 10;
    const auto letter = static_cast<char>(byte);
    if (special.find(letter) != std::string_view::npos) {
        text += '\\';
        text += letter;
    } else if (byte >= kFirstPrintable && byte <= kLastPrintable) {
        text += letter;
    } else {
        text += '\\';
        for (const unsigned digit : {byte / (kTen * kTen), byte / kTen % kTen, byte % kTen}) {
            text += static_cast<char>('0' + digit);
        }
    }
}

// Reads a message from front to back. Every step beyond its end throws Malformed.
class DnsReader {
  public:
    explicit DnsReader(std::span<const std::uint8_t> message, std::size_t at = 0) : message_(message), at_(at) {}

    [[nodiscard]] std::size_t At() const { return at_; }

    std::uint8_t Byte() { return Bytes(1).front(); }
    std::uint16_t Number()
    {
        const auto bytes = Bytes(2);
        return static_cast<std::uint16_t>(bytes[0] << 8U | bytes[1]);
    }
    std::uint32_t LongNumber()
    {
        const std::uint32_t high = Number();
        return high << 16U | Number();
    }
    std::span<const std::uint8_t> Bytes(std::size_t count)
    {
        if (count > message_.size() - at_) {
            throw Malformed();
        }
        const auto bytes = message_.subspan(at_, count);
        at_ += count;
        return bytes;
    }
    std::string Name();
    // Strings of a length byte each, up to the offset `end`.
    std::vector<std::string> Strings(std::size_t end);

  private:
    std::span<const std::uint8_t> message_;
    std::size_t at_;
};

// A pointer leads to an earlier place than the one before, so that it ends.
std::string DnsReader::Name()
{
    std::string name;
    std::optional<std::size_t> back;
    std::size_t earliest = at_;
    for (std::uint8_t length = Byte(); length != 0; length = Byte()) {
        if ((length & kPointer) == kPointer) {
            const std::size_t target = static_cast<std::size_t>(length & ~kPointer & 0xFFU) << 8U | Byte();
            back = back.value_or(at_);
            if (target >= earliest) {
                throw Malformed();
            }
            at_ = earliest = target;
            continue;
        }
        if (length > kLabelMax) {
            throw Malformed();
        }
        for (const std::uint8_t byte : Bytes(length)) {
            AppendByte(name, byte, ".\\");
        }
        name += '.';
    }
    at_ = back.value_or(at_);
    if (name.empty()) {
        return ".";
    }
    name.pop_back();
    return name;
}

std::vector<std::string> DnsReader::Strings(std::size_t end)
{
    std::vector<std::string> strings;
    while (at_ < end) {
        const auto bytes = Bytes(Byte());
        strings.emplace_back(bytes.begin(), bytes.end());
    }
    return strings;
}

// Each in quotes.
std::string QuotedText(const std::vector<std::string> &strings)
{
    std::string text;
    for (const std::string &one : strings) {
        text += text.empty() ? "\"" : " \"";
        for (const char letter : one) {
            if (letter == ' ') {
                text += ' ';
            } else {
                AppendByte(text, static_cast<std::uint8_t>(letter), "\"\\");
            }
        }
        text += '"';
    }
    return text;
}

template <std::size_t Size>
std::string AddressText(DnsReader &reader, int family)
{
    std::array<char, INET6_ADDRSTRLEN> text{};
    return ::inet_ntop(family, reader.Bytes(Size).data(), text.data(), text.size());
}

std::string StartOfAuthority(DnsReader &reader)
{
    std::string text = reader.Name();
    text += ' ' + reader.Name();
    constexpr std::size_t kNumbers = 5;
    for (std::size_t i = 0; i < kNumbers; ++i) {
        text += ' ' + std::to_string(reader.LongNumber());
    }
    return text;
}

std::string Service(DnsReader &reader)
{
    std::string text;
    constexpr std::size_t kNumbers = 3;
    for (std::size_t i = 0; i < kNumbers; ++i) {
        text += std::to_string(reader.Number()) + ' ';
    }
    return text + reader.Name();
}

// The data of a record, which takes `length` bytes. Strings are appended to `strings`, too.
std::string DataText(DnsReader &reader, std::uint16_t type, std::size_t length, std::vector<std::string> &strings)
{
    constexpr std::size_t kIpv4Size = 4;
    constexpr std::size_t kIpv6Size = 16;
    const std::size_t end = reader.At() + length;
    switch (static_cast<DnsType>(type)) {
    case DnsType::kA:
        return AddressText<kIpv4Size>(reader, AF_INET);
    case DnsType::kAaaa:
        return AddressText<kIpv6Size>(reader, AF_INET6);
    case DnsType::kNs:
    case DnsType::kCname:
    case DnsType::kPtr:
        return reader.Name();
    case DnsType::kMx: {
        const std::string preference = std::to_string(reader.Number());
        return preference + ' ' + reader.Name();
    }
    case DnsType::kTxt: {
        const std::vector<std::string> own = reader.Strings(end);
        strings.insert(strings.end(), own.begin(), own.end());
        return QuotedText(own);
    }
    case DnsType::kSrv:
        return Service(reader);
    case DnsType::kSoa:
        return StartOfAuthority(reader);
    case DnsType::kAny:
        break;
    }
    static_cast<void>(reader.Bytes(length));
    return "(" + std::to_string(length) + " bytes)";
}

std::string RecordText(DnsReader &reader, std::vector<std::string> &strings)
{
    const std::string name = reader.Name();
    const std::uint16_t type = reader.Number();
    static_cast<void>(reader.Number()); // the class
    static_cast<void>(reader.Bytes(kTtlSize));
    const std::size_t length = reader.Number();
    const std::size_t end = reader.At() + length;
    std::string text = name + ' ' + DnsTypeName(type) + ' ' + DataText(reader, type, length, strings);
    if (reader.At() != end) {
        throw Malformed();
    }
    return text;
}

// The header and the records. Nothing when it is no answer to that question.
std::optional<DnsAnswer> ReadAnswer(DnsReader &reader, std::uint16_t id)
{
    const bool isOurs = reader.Number() == id;
    const std::uint8_t flags = reader.Byte();
    if (!isOurs || (flags & kResponse) == 0) {
        return std::nullopt;
    }
    DnsAnswer answer;
    answer.isTruncated = (flags & kTruncated) != 0;
    answer.rcode = reader.Byte() & kRcodeMask;
    const std::uint16_t questions = reader.Number();
    const std::uint16_t records = reader.Number();
    static_cast<void>(reader.LongNumber()); // the numbers of the other sections
    for (std::uint16_t i = 0; i < questions; ++i) {
        static_cast<void>(reader.Name());
        static_cast<void>(reader.LongNumber()); // its type and class
    }
    for (std::uint16_t i = 0; i < records && !answer.isTruncated; ++i) {
        answer.records.push_back(RecordText(reader, answer.strings));
    }
    return answer;
}

} // namespace

std::optional<std::vector<std::uint8_t>> EncodeDnsQuestion(std::string_view name, std::uint16_t type, std::uint16_t id)
{
    std::vector<std::uint8_t> bytes;
    AppendNumber(bytes, id);
    bytes.insert(bytes.end(), {kRecursionDesired, 0, 0, 1, 0, 0, 0, 0, 0, 0}); // one question
    if (!AppendName(bytes, name)) {
        return std::nullopt;
    }
    AppendNumber(bytes, type);
    AppendNumber(bytes, 1); // the class IN
    return bytes;
}

std::optional<DnsAnswer> DecodeDnsAnswer(std::span<const std::uint8_t> message, std::uint16_t id)
{
    try {
        DnsReader reader(message);
        return ReadAnswer(reader, id);
    } catch (const Malformed &) {
        return std::nullopt;
    }
}

} // namespace kavel::agent

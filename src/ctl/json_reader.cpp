#include "json_reader.h"

#include <arpa/inet.h>
#include <array>
#include <cstring>
#include <limits>

#include "errors.h"
#include "operation.h"
#include "output.h"

namespace kavel::ctl {

namespace {

constexpr std::size_t kShownMax = 64;
constexpr std::size_t kIpv6Size = 16;
constexpr const char *kNumberRange = "a number from 0 to 4294967295";

bool ContinuesCharacter(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

[[noreturn]] void RefuseSyntax(std::string_view before, std::string_view why)
{
    const auto line = 1 + std::ranges::count(before, '\n');
    const std::string_view last = before.substr(before.rfind('\n') + 1);
    const auto column = last.size() - static_cast<std::size_t>(std::ranges::count_if(last, ContinuesCharacter)) + 1;
    throw InputError("line " + std::to_string(line) + ", column " + std::to_string(column) + ": " + std::string(why));
}

std::string_view TextOf(const Place &at, std::string_view expected)
{
    if (!IsType(at.value, json_type_string)) {
        RefuseKind(at, expected);
    }
    return {json_object_get_string(at.value), static_cast<std::size_t>(json_object_get_string_len(at.value))};
}

std::uint32_t NumberOf(const Place &at, std::string_view expected)
{
    // A number beyond 64 bits is read as the nearest that fits, which is out of this range as well.
    const std::int64_t number = json_object_get_int64(at.value);
    if (!IsType(at.value, json_type_int) || number < 0 || number > std::numeric_limits<std::uint32_t>::max()) {
        RefuseKind(at, expected);
    }
    return static_cast<std::uint32_t>(number);
}

} // namespace

JsonPtr ParseJson(const std::string &text)
{
    const std::unique_ptr<json_tokener, decltype(&json_tokener_free)> tokener(json_tokener_new(), json_tokener_free);
    if (!tokener) {
        throw std::bad_alloc();
    }
    json_tokener_set_flags(tokener.get(), JSON_TOKENER_STRICT | JSON_TOKENER_VALIDATE_UTF8);
    // The terminator goes in too: it ends a value that nothing else ends.
    JsonPtr value(json_tokener_parse_ex(tokener.get(), text.c_str(), static_cast<int>(text.size() + 1)));
    const std::string_view before = std::string_view(text).substr(0, json_tokener_get_parse_end(tokener.get()));
    if (const json_tokener_error error = json_tokener_get_error(tokener.get()); error != json_tokener_success) {
        RefuseSyntax(before, json_tokener_error_desc(error));
    }
    if (before.size() < text.size()) {
        RefuseSyntax(before, "NUL character");
    }
    return value;
}

std::string Path::Text() const
{
    if (parent_ == nullptr) {
        return {};
    }
    std::string text = parent_->Text();
    if (!name_) {
        return text + "[" + std::to_string(index_) + "]";
    }
    if (!text.empty()) {
        text += '.';
    }
    return text.append(name_->empty() ? R"("")" : *name_);
}

void Refuse(const Path &path, const std::string &why)
{
    const std::string where = path.Text();
    // Keys and values come out of the file as they are.
    throw InputError(Printable(where.empty() ? why : where + ": " + why));
}

void RefuseKind(const Place &at, std::string_view expected)
{
    Refuse(at.path, "expected " + std::string(expected) + ", not " + Shown(at.value));
}

std::string Shown(json_object *value)
{
    if (IsType(value, json_type_array)) {
        return "a list";
    }
    if (IsType(value, json_type_object)) {
        return "an object";
    }
    std::string text = json_object_to_json_string_ext(value, JSON_C_TO_STRING_NOSLASHESCAPE);
    if (text.size() > kShownMax) {
        std::size_t cut = kShownMax;
        while (ContinuesCharacter(text[cut])) {
            --cut;
        }
        text.resize(cut);
        text += "...";
    }
    return text;
}

protobuf_c_boolean ReadBool(const Place &at)
{
    if (!IsType(at.value, json_type_boolean)) {
        RefuseKind(at, "true or false");
    }
    return json_object_get_boolean(at.value);
}

std::uint32_t ReadNumber(const Place &at)
{
    return NumberOf(at, kNumberRange);
}

std::uint32_t ReadOperation(const Place &at)
{
    const std::string expected = std::string(R"("reload", "reboot" or )") + kNumberRange;
    if (!IsType(at.value, json_type_string)) {
        return NumberOf(at, expected);
    }
    const auto *const operation = FindField(kOperations, TextOf(at, expected));
    if (operation == kOperations.end()) {
        RefuseKind(at, expected);
    }
    return operation->number;
}

char *ReadText(const Place &at)
{
    const std::string_view text = TextOf(at, "a text");
    if (text.find('\0') != std::string_view::npos) {
        Refuse(at.path, "contains a NUL character");
    }
    char *copy = std::pmr::polymorphic_allocator<>(&at.arena).allocate_object<char>(text.size() + 1);
    std::ranges::copy(text, copy);
    copy[text.size()] = '\0';
    return copy;
}

std::uint32_t ReadIpv4(const Place &at)
{
    const std::string text(TextOf(at, "an IPv4 address in quotes"));
    in_addr address{};
    if (std::strlen(text.c_str()) != text.size() || ::inet_pton(AF_INET, text.c_str(), &address) != 1) {
        Refuse(at.path, Shown(at.value) + " is not an IPv4 address");
    }
    return ntohl(address.s_addr);
}

ProtobufCBinaryData ReadIpv6(const Place &at)
{
    const std::string text(TextOf(at, "an IPv6 address in quotes"));
    auto *bytes = std::pmr::polymorphic_allocator<>(&at.arena).allocate_object<std::uint8_t>(kIpv6Size);
    if (std::strlen(text.c_str()) != text.size() || ::inet_pton(AF_INET6, text.c_str(), bytes) != 1) {
        Refuse(at.path, Shown(at.value) + " is not an IPv6 address");
    }
    return {kIpv6Size, bytes};
}

} // namespace kavel::ctl

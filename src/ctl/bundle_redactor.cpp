#include "bundle_redactor.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cctype>
#include <functional>
#include <netinet/in.h>
#include <optional>
#include <utility>
#include <vector>

#include "input_error.h"
#include "json_reader.h"

namespace kavel::ctl {

namespace {

// What a word that ends so is, if it has a dot: no domain name.
constexpr std::array<std::string_view, 32> kFileEndings = {
    "automount", "cfg",   "conf",  "cpp",    "db",   "device", "gz",     "inforce", "json",     "launch", "leases",
    "log",       "lock",  "meant", "mount",  "path", "pid",    "procs",  "py",      "redacted", "scope",  "service",
    "sh",        "slice", "so",    "socket", "sock", "swap",   "target", "timer",   "tmp",      "txt"};

// Options of dnsmasq that have names in their values.
constexpr std::array<std::string_view, 20> kNameOptions = {
    "address",    "auth-zone", "cname",     "domain",       "host-record", "interface-name", "ipset",
    "local",      "mx-host",   "mx-target", "naptr-record", "nftset",      "ptr-record",     "rebind-domain-ok",
    "rev-server", "server",    "srv-host",  "synth-domain", "txt-record",  "caa-record"};

constexpr std::array<std::string_view, 4> kNameKeys = {"domain", "domains", "sourcedomain", "targetdomain"};
// What ends a sentence, or stands before an option.
constexpr std::string_view kPunctuation = ".-_";
constexpr std::array<std::string_view, 4> kNoNames = {"localhost", "true", "false", "null"};

bool IsLetter(char letter)
{
    return std::isalpha(static_cast<unsigned char>(letter)) != 0;
}

bool IsNameCharacter(char letter)
{
    return std::isalnum(static_cast<unsigned char>(letter)) != 0 || letter == '-' || letter == '_' || letter == '.';
}

bool IsRunCharacter(char letter)
{
    return IsNameCharacter(letter) || letter == ':';
}

std::string Lowered(std::string_view text)
{
    std::string lowered(text);
    std::ranges::transform(lowered, lowered.begin(), [](unsigned char letter) { return std::tolower(letter); });
    return lowered;
}

template <typename Table>
bool Has(const Table &table, std::string_view text)
{
    return std::ranges::find(table, text) != std::ranges::end(table);
}

// Calls `use` for each part of `text` between characters for which `isSeparator` holds.
void ForEachPart(std::string_view text, const std::function<bool(char)> &isSeparator,
                 const std::function<void(std::string_view)> &use)
{
    while (!text.empty()) {
        const auto *const end = std::ranges::find_if(text, isSeparator);
        const auto size = static_cast<std::size_t>(end - text.begin());
        if (size > 0) {
            use(text.substr(0, size));
        }
        text.remove_prefix(std::min(text.size(), size + 1));
    }
}

void ForEachLine(std::string_view text, const std::function<void(std::string_view)> &use)
{
    ForEachPart(
        text, [](char letter) { return letter == '\n'; }, use);
}

bool IsBlank(char letter)
{
    return letter == ' ' || letter == '\t' || letter == '\r';
}

// The canonical text of an address; nothing for other texts.
std::optional<std::string> AddressIn(std::string_view word)
{
    const std::string text(word);
    std::array<char, INET6_ADDRSTRLEN> canonical{};
    in_addr four{};
    if (::inet_pton(AF_INET, text.c_str(), &four) == 1) {
        return text;
    }
    in6_addr six{};
    if (::inet_pton(AF_INET6, text.c_str(), &six) == 1 &&
        ::inet_ntop(AF_INET6, &six, canonical.data(), canonical.size()) != nullptr) {
        return canonical.data();
    }
    return std::nullopt;
}

bool TellsNothing(const std::string &address)
{
    return address.starts_with("127.") || address == "0.0.0.0" || address == "::" || address == "::1";
}

bool IsMac(std::string_view word)
{
    constexpr std::size_t kLength = 17;
    constexpr std::size_t kStep = 3;
    if (word.size() != kLength) {
        return false;
    }
    for (std::size_t i = 0; i < word.size(); ++i) {
        const bool isColon = i % kStep == 2;
        if (isColon ? word[i] != ':' : std::isxdigit(static_cast<unsigned char>(word[i])) == 0) {
            return false;
        }
    }
    return true;
}

// Two labels at least, the last one of letters. A name of a file with an underscore is none, "_sip._tcp.example" is.
bool IsDomainName(std::string_view word)
{
    const std::size_t dot = word.rfind('.');
    if (dot == std::string_view::npos || word.front() == '.' || word.front() == '-' || word.size() - dot < 3 ||
        !std::ranges::all_of(word.substr(dot + 1), IsLetter) || Has(kFileEndings, Lowered(word.substr(dot + 1)))) {
        return false;
    }
    for (std::size_t at = word.find('_'); at != std::string_view::npos; at = word.find('_', at + 1)) {
        if (at > 0 && word[at - 1] != '.') {
            return false;
        }
    }
    return word.find("..") == std::string_view::npos;
}

// A value of a JSON document, and whether its key says that it is a name.
struct NamedValue {
    json_object *json = nullptr;
    bool isName = false;
};

void AddValuesIn(const NamedValue &value, std::vector<NamedValue> &to)
{
    if (IsType(value.json, json_type_object)) {
        const json_object_iterator end = json_object_iter_end(value.json);
        json_object_iterator it = json_object_iter_begin(value.json);
        for (; json_object_iter_equal(&it, &end) == 0; json_object_iter_next(&it)) {
            to.push_back({json_object_iter_peek_value(&it), Has(kNameKeys, Lowered(json_object_iter_peek_name(&it)))});
        }
    } else if (IsType(value.json, json_type_array)) {
        for (std::size_t i = 0; i < json_object_array_length(value.json); ++i) {
            to.push_back({json_object_array_get_idx(value.json, i), value.isName});
        }
    }
}

// The IPv6 or MAC address that begins at `at` and ends where a word ends; empty when there is none.
std::string_view ColonAddressAt(std::string_view run, std::size_t at)
{
    const auto isPart = [](char letter) {
        return std::isxdigit(static_cast<unsigned char>(letter)) != 0 || letter == ':' || letter == '.';
    };
    if (at > 0 && std::isalnum(static_cast<unsigned char>(run[at - 1])) != 0) {
        return {};
    }
    const std::string_view rest = run.substr(at, INET6_ADDRSTRLEN);
    std::string_view candidate(rest.begin(), std::ranges::find_if_not(rest, isPart));
    const std::size_t end = at + candidate.size();
    const bool endsInWord = end < run.size() && std::isalnum(static_cast<unsigned char>(run[end])) != 0;
    if (endsInWord || std::ranges::count(candidate, ':') < 2) {
        return {};
    }
    const bool hasEnd = candidate.back() == ':' || candidate.back() == '.'; // of a sentence, or of the address
    for (const std::size_t behind : {0U, 1U}) {
        const std::string_view word = candidate.substr(0, candidate.size() - behind);
        if ((behind == 0 || hasEnd) && (IsMac(word) || AddressIn(word))) {
            return word;
        }
    }
    return {};
}

} // namespace

void Redactor::Learn(std::string_view name)
{
    while (!name.empty() && name.back() == '.') {
        name.remove_suffix(1);
    }
    while (name.starts_with("*") || name.starts_with(".")) {
        name.remove_prefix(1);
    }
    const std::string lowered = Lowered(name);
    const bool isUsable = lowered.size() > 1 && std::ranges::all_of(lowered, IsNameCharacter) &&
                          std::ranges::any_of(lowered, IsLetter) && !Has(kNoNames, lowered) && !AddressIn(lowered);
    if (isUsable) {
        known_.insert(lowered);
    }
}

void Redactor::LearnHosts(std::string_view text)
{
    ForEachLine(text, [this](std::string_view line) {
        bool isAddress = true;
        ForEachPart(line.substr(0, line.find('#')), IsBlank, [&](std::string_view word) {
            if (!isAddress) {
                Learn(word);
            }
            isAddress = false;
        });
    });
}

// In the options with slashes the names stand between them; what follows the last one is an address or an interface.
void Redactor::LearnOptions(std::string_view text)
{
    ForEachLine(text, [this](std::string_view line) {
        const std::size_t equals = line.find('=');
        if (equals == std::string_view::npos || !Has(kNameOptions, line.substr(0, equals))) {
            return;
        }
        std::string_view value = line.substr(equals + 1);
        const std::size_t slash = value.rfind('/');
        if (value.starts_with('/')) {
            value = value.substr(0, slash);
        }
        ForEachPart(
            value, [](char letter) { return letter == '/' || letter == ',' || letter == '#' || IsBlank(letter); },
            [this](std::string_view word) { Learn(word); });
    });
}

void Redactor::LearnJson(std::string_view text)
{
    try {
        const JsonPtr document = ParseJson(std::string(text));
        std::vector<NamedValue> left{{document.get(), false}};
        while (!left.empty()) {
            const NamedValue value = left.back();
            left.pop_back();
            if (value.isName && IsType(value.json, json_type_string)) {
                ForEachPart(
                    json_object_get_string(value.json), [](char letter) { return letter == ',' || IsBlank(letter); },
                    [this](std::string_view word) { Learn(word); });
            }
            AddValuesIn(value, left);
        }
    } catch (const InputError &) {
        return; // what it names cannot be told from other words
    }
}

std::string Redactor::NameToken(const std::string &name)
{
    std::vector<std::string> chain{name}; // and the known names that it is below
    for (std::size_t dot = name.find('.'); dot != std::string::npos; dot = name.find('.', dot + 1)) {
        if (std::string above = name.substr(dot + 1); known_.contains(above)) {
            chain.push_back(std::move(above));
        }
    }
    std::string token = "redacted";
    std::for_each(chain.rbegin(), chain.rend(), [&](const std::string &one) {
        const std::string next = "host-" + std::to_string(names_.size() + 1) + "." + token;
        token = names_.emplace(one, next).first->second;
    });
    return token;
}

std::optional<std::string> Redactor::AddressToken(std::string_view word)
{
    if (word.size() >= INET6_ADDRSTRLEN) {
        return std::nullopt;
    }
    if (IsMac(word)) {
        return macs_.emplace(Lowered(word), "mac-" + std::to_string(macs_.size() + 1)).first->second;
    }
    const auto address = AddressIn(word);
    if (!address) {
        return std::nullopt;
    }
    return TellsNothing(*address)
               ? std::string(word)
               : addresses_.emplace(*address, "ip-" + std::to_string(addresses_.size() + 1)).first->second;
}

std::optional<std::string> Redactor::WordToken(std::string_view word)
{
    if (auto token = AddressToken(word)) {
        return token;
    }
    const std::string name = Lowered(word);
    return known_.contains(name) || IsDomainName(name) ? std::optional(NameToken(name)) : std::nullopt;
}

// A word without colons: as it is, without the punctuation around it, or as addresses with a hyphen between them.
std::string Redactor::RedactWord(std::string_view word)
{
    if (const auto token = WordToken(word)) {
        return *token;
    }
    const std::size_t first = std::min(word.size(), word.find_first_not_of(kPunctuation));
    const std::size_t last = word.find_last_not_of(kPunctuation);
    if (first < word.size()) {
        if (const auto token = WordToken(word.substr(first, last + 1 - first))) {
            return std::string(word.substr(0, first)) + *token + std::string(word.substr(last + 1));
        }
    }
    std::string result;
    while (!word.empty()) {
        const std::size_t end = std::min(word.size(), word.find_first_of("-_"));
        const std::string_view part = word.substr(0, end);
        result += AddressToken(part).value_or(std::string(part));
        result += word.substr(end, 1);
        word.remove_prefix(std::min(word.size(), end + 1));
    }
    return result;
}

// "10.7.0.53:53", "domain:nas.example".
std::string Redactor::RedactWords(std::string_view words)
{
    std::string result;
    while (!words.empty()) {
        const std::size_t end = std::min(words.size(), words.find(':'));
        result += RedactWord(words.substr(0, end));
        result += words.substr(end, 1);
        words.remove_prefix(std::min(words.size(), end + 1));
    }
    return result;
}

std::string Redactor::RedactRun(std::string_view run)
{
    if (run.find(':') == std::string_view::npos) {
        return RedactWord(run);
    }
    std::string result;
    std::size_t done = 0;
    for (std::size_t at = 0; at < run.size();) {
        const std::string_view candidate = ColonAddressAt(run, at);
        if (candidate.empty()) {
            ++at;
            continue;
        }
        result += RedactWords(run.substr(done, at - done));
        result += AddressToken(candidate).value_or(std::string(candidate));
        at += candidate.size();
        done = at;
    }
    return result + RedactWords(run.substr(done));
}

std::string Redactor::Redact(std::string_view text)
{
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const auto *const start = std::ranges::find_if(text, IsRunCharacter);
        result.append(text.begin(), start);
        const auto *const end = std::find_if_not(start, text.end(), IsRunCharacter);
        result += RedactRun({start, end});
        text = {end, text.end()};
    }
    return result;
}

} // namespace kavel::ctl

#include "json_text.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <json-c/json.h>
#include <memory>
#include <numeric>
#include <ranges>
#include <unordered_set>
#include <utility>
#include <vector>

#include "json_reader.h"
#include "printable.h"

namespace kavel {

namespace {

constexpr std::size_t kShortenedMax = 64;
constexpr std::string_view kJsonBlanks = " \t\n\v\f\r";

// Whether a byte of UTF-8 is not the first of its character.
bool IsInsideCharacter(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

struct NamedBytes {
    std::string_view bytes;
    std::string_view text;
};

constexpr std::array<NamedBytes, 3> kByteOrderMarks = {{
    {"\xEF\xBB\xBF", "byte order mark; save the file as UTF-8 without one"},
    {"\xFF\xFE", "UTF-16; save the file as UTF-8"},
    {"\xFE\xFF", "UTF-16; save the file as UTF-8"},
}};

constexpr std::array<NamedBytes, 5> kWrongQuotes = {{
    {"\u201C", R"(typographic quote U+201C; use ")"},
    {"\u201D", R"(typographic quote U+201D; use ")"},
    {"\u2018", R"(typographic quote U+2018; use ")"},
    {"\u2019", R"(typographic quote U+2019; use ")"},
    {"'", R"(single quote; use ")"},
}};

constexpr std::array<std::string_view, 3> kCommentStarts = {"//", "/*", "#"};

// The entry that `text` begins with, or null.
template <typename Table>
const NamedBytes *FindStart(const Table &table, std::string_view text)
{
    const auto found =
        std::ranges::find_if(table, [text](const NamedBytes &one) { return text.starts_with(one.bytes); });
    return found == table.end() ? nullptr : &*found;
}

bool ClosesContainer(char character)
{
    return character == '}' || character == ']';
}

// The offset behind the string whose opening quote is at `start`; the end of the text for a string that has no end.
std::size_t EndOfString(std::string_view text, std::size_t start)
{
    std::size_t at = start + 1;
    while (at < text.size() && text[at] != '"') {
        at += text[at] == '\\' ? 2 : 1;
    }
    return std::min(at + 1, text.size());
}

// As json-c gives it to its caller.
std::string KeyAsRead(std::string_view quoted)
{
    if (quoted.find('\\') == std::string_view::npos) {
        return std::string(quoted.substr(1, quoted.size() - 2));
    }
    const JsonPtr value(json_tokener_parse(std::string(quoted).c_str()));
    const char *const text = json_object_get_string(value.get());
    return text != nullptr ? text : std::string(quoted);
}

using SeenKeys = std::unordered_set<std::string>;

// Finds the keys in a text that is JSON. Everything but strings and the marks between them is passed over.
class KeyScan {
  public:
    KeyScan(std::string_view text, const std::function<void(const JsonMistake &)> &report)
        : text_(text), report_(report)
    {
    }

    void Run()
    {
        while (at_ < text_.size()) {
            Step(text_[at_]);
        }
    }

  private:
    void Step(char mark)
    {
        if (mark == '"') {
            const std::size_t end = EndOfString(text_, at_);
            if (IsKeyNext()) {
                TakeKey(end);
            }
            at_ = end;
            return;
        }
        if (mark == '{' || mark == '[') {
            open_.push_back(mark == '{' ? std::make_unique<SeenKeys>() : nullptr);
        } else if (ClosesContainer(mark) && !open_.empty()) {
            open_.pop_back();
        }
        last_ = mark == '{' || mark == ',' || mark == ':' ? mark : last_;
        ++at_;
    }

    [[nodiscard]] bool IsKeyNext() const { return !open_.empty() && open_.back() && last_ != ':'; }

    void TakeKey(std::size_t end)
    {
        const auto [key, isNew] = open_.back()->insert(KeyAsRead(text_.substr(at_, end - at_)));
        if (!isNew) {
            report_({at_, Printable("key \"" + Shortened(*key) + "\" is there twice")});
        }
    }

    std::string_view text_;
    const std::function<void(const JsonMistake &)> &report_;
    std::vector<std::unique_ptr<SeenKeys>> open_; // the containers around the offset; null for an array
    std::size_t at_ = 0;
    char last_ = '\0'; // the last mark that decides whether a string is a key
};

char Lower(char character)
{
    return static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
}

bool IsDigit(char character)
{
    return std::isdigit(static_cast<unsigned char>(character)) != 0;
}

// Another digit is rarely a slip: "ipv4" is not a wrong "ipv6".
std::size_t ReplacingCost(char one, char other)
{
    if (Lower(one) == Lower(other)) {
        return 0;
    }
    return IsDigit(one) && IsDigit(other) ? 2 : 1;
}

// The number of letters to insert, remove and replace.
std::size_t EditDistance(std::string_view one, std::string_view other)
{
    std::vector<std::size_t> row(other.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (const char letter : one) {
        std::size_t diagonal = std::exchange(row.front(), row.front() + 1);
        for (std::size_t i = 0; i < other.size(); ++i) {
            const std::size_t replaced = diagonal + ReplacingCost(letter, other[i]);
            diagonal = std::exchange(row[i + 1], std::min({replaced, row[i] + 1, row[i + 1] + 1}));
        }
    }
    return row.back();
}

// Whether the shorter of the two is the beginning of the longer, or a large part of it.
bool IsPartOf(std::string_view one, std::string_view other)
{
    constexpr std::size_t kBeginningMin = 2;
    constexpr std::size_t kPartMin = 4;
    const auto [part, whole] = one.size() < other.size() ? std::pair(one, other) : std::pair(other, one);
    const auto sameLetter = [](char left, char right) { return Lower(left) == Lower(right); };
    // clang 14 does not compile std::ranges::search() with the C++ library of gcc 12.
    const auto *const found = std::search(whole.begin(), whole.end(), part.begin(), part.end(), sameLetter);
    return (part.size() >= kBeginningMin && found == whole.begin()) ||
           (part.size() >= kPartMin && found != whole.end());
}

// The name that differs least, if the difference is small; of names that differ alike, the longest.
std::optional<std::string_view> NearestName(std::string_view key, std::span<const std::string_view> known)
{
    constexpr std::size_t kLettersPerSlip = 3;
    std::optional<std::string_view> nearest;
    std::size_t least = 0;
    for (const std::string_view name : known) {
        const std::size_t distance = EditDistance(key, name);
        const bool isNear = distance <= std::max(key.size(), name.size()) / kLettersPerSlip;
        const bool isBetter = !nearest || distance < least || (distance == least && name.size() > nearest->size());
        if (isNear && isBetter) {
            nearest = name;
            least = distance;
        }
    }
    return nearest;
}

// The only name that contains the key or is contained in it.
std::optional<std::string_view> OnlyRelative(std::string_view key, std::span<const std::string_view> known)
{
    const auto isRelative = [key](std::string_view name) { return IsPartOf(key, name); };
    const auto found = std::ranges::find_if(known, isRelative);
    return std::ranges::count_if(known, isRelative) == 1 ? std::optional(*found) : std::nullopt;
}

} // namespace

std::string TextPosition::At(std::size_t offset)
{
    const std::string_view passed = text_.substr(counted_, offset - counted_);
    line_ += static_cast<std::size_t>(std::ranges::count(passed, '\n'));
    if (const std::size_t last = passed.rfind('\n'); last != std::string_view::npos) {
        lineStart_ = counted_ + last + 1;
    }
    counted_ = offset;
    const std::string_view before = text_.substr(lineStart_, offset - lineStart_);
    const auto inside = static_cast<std::size_t>(std::ranges::count_if(before, IsInsideCharacter));
    return "line " + std::to_string(line_) + ", column " + std::to_string(before.size() - inside + 1);
}

std::string Shortened(std::string text)
{
    if (text.size() <= kShortenedMax) {
        return text;
    }
    std::size_t cut = kShortenedMax;
    while (cut > 0 && IsInsideCharacter(text[cut])) {
        --cut;
    }
    text.resize(cut);
    return text + "...";
}

std::optional<JsonMistake> FindByteOrderMark(std::string_view text)
{
    const NamedBytes *const mark = FindStart(kByteOrderMarks, text);
    return mark != nullptr ? std::optional(JsonMistake{0, std::string(mark->text)}) : std::nullopt;
}

std::optional<JsonMistake> FindMistakeAt(std::string_view text, std::size_t offset)
{
    const std::string_view rest = text.substr(offset);
    if (std::ranges::any_of(kCommentStarts, [rest](std::string_view start) { return rest.starts_with(start); })) {
        return JsonMistake{offset, "comment; JSON has none"};
    }
    if (const NamedBytes *const quote = FindStart(kWrongQuotes, rest); quote != nullptr) {
        return JsonMistake{offset, std::string(quote->text)};
    }
    const std::size_t before = offset == 0 ? std::string_view::npos : text.find_last_not_of(kJsonBlanks, offset - 1);
    if (before != std::string_view::npos && text[before] == ',' && ClosesContainer(rest.front())) {
        return JsonMistake{before, std::string("trailing comma; none may stand before \"") + rest.front() + "\""};
    }
    return std::nullopt;
}

std::optional<JsonMistake> FindTypographicQuote(std::string_view text, std::size_t offset)
{
    std::string_view string;
    std::size_t end = 0;
    for (std::size_t at = text.find('"'); at < offset; at = text.find('"', end)) {
        end = EndOfString(text, at);
        string = text.substr(at, end - at);
    }
    if (end < offset && text.find_first_not_of(kJsonBlanks, end) < offset) {
        return std::nullopt;
    }
    for (std::size_t at = 0; at < string.size(); ++at) {
        const NamedBytes *const quote = FindStart(kWrongQuotes, string.substr(at));
        if (quote != nullptr && quote->bytes.size() > 1) {
            return JsonMistake{end - string.size() + at, std::string(quote->text)};
        }
    }
    return std::nullopt;
}

void FindRepeatedKeys(std::string_view text, const std::function<void(const JsonMistake &)> &report)
{
    KeyScan(text, report).Run();
}

std::string UnknownKeyText(std::string_view key, std::span<const std::string_view> known)
{
    std::optional<std::string_view> meant;
    if (key.size() <= kShortenedMax) {
        meant = NearestName(key, known);
        meant = meant ? meant : OnlyRelative(key, known);
    }
    return meant ? "unknown key; did you mean \"" + std::string(*meant) + "\"?" : "unknown key";
}

} // namespace kavel

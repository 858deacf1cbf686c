// Positions in a JSON text, and the usual mistakes in it, in words for people.
#ifndef KAVEL_COMMON_JSON_TEXT_H
#define KAVEL_COMMON_JSON_TEXT_H

#include <cstddef>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace kavel {

struct JsonMistake {
    std::size_t offset = 0; // in the text, in bytes
    std::string what;       // one line
};

// Counts lines and columns of ascending offsets; the text is passed over once. It refers to the text.
class TextPosition {
  public:
    explicit TextPosition(std::string_view text) : text_(text) {}
    // "line 2, column 3", both from 1; a column is a character of UTF-8. `offset` is at most the length of the text,
    // and not below that of the call before.
    [[nodiscard]] std::string At(std::size_t offset);

  private:
    std::string_view text_;
    std::size_t line_ = 1;
    std::size_t lineStart_ = 0;
    std::size_t counted_ = 0; // all lines before this offset are counted
};

// `text`, or at most 64 bytes of it and "...", cut between two characters of UTF-8.
[[nodiscard]] std::string Shortened(std::string text);

// The byte order mark that `text` begins with, if any.
[[nodiscard]] std::optional<JsonMistake> FindByteOrderMark(std::string_view text);

// What the parser stumbled over at `offset`, which is below the length of `text`: a comment, a comma behind the last
// element, a quote that is none in JSON. Nothing for every other error.
[[nodiscard]] std::optional<JsonMistake> FindMistakeAt(std::string_view text, std::size_t offset);

// The first typographic quote in the string that ends before `offset`, blanks aside, or that has no end: it does not
// end a string, so the parser stumbles behind it. Nothing if there is none.
[[nodiscard]] std::optional<JsonMistake> FindTypographicQuote(std::string_view text, std::size_t offset);

// Calls `report` for each key that its object has before, in ascending order of offsets. `text` must be JSON. Keys are
// compared as they are read: without what follows a NUL character.
void FindRepeatedKeys(std::string_view text, const std::function<void(const JsonMistake &)> &report);

// "unknown key", and the one of the `known` names that was probably meant, if there is one.
[[nodiscard]] std::string UnknownKeyText(std::string_view key, std::span<const std::string_view> known);

} // namespace kavel

#endif

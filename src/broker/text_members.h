// Texts in the JSON objects that boxes publish: one line, of a bounded length.
#ifndef KAVEL_BROKER_TEXT_MEMBERS_H
#define KAVEL_BROKER_TEXT_MEMBERS_H

#include <cstddef>
#include <string>
#include <string_view>

#include "json_reader.h"

namespace kavel::broker {

// `text` as Printable() gives it, at most `size` bytes of it, cut at the end of a character.
[[nodiscard]] std::string OneLine(std::string_view text, std::size_t size);

// The document that `text` is. Throws InputError: it is longer than `size` bytes, or no JSON.
[[nodiscard]] JsonPtr ParseBounded(std::string_view text, std::size_t size);

// Refuses every value but the number of the layout, kJsonSchema.
void ExpectSchema(const JsonValue &value);

} // namespace kavel::broker

#endif

// JSON values for documents that programs write. Every document is an object with the member `schema`, the number of
// its layout: members may be added to a layout, but none is removed or changed.
#ifndef KAVEL_COMMON_JSON_WRITER_H
#define KAVEL_COMMON_JSON_WRITER_H

#include <concepts>
#include <cstdint>
#include <string>

#include "json_reader.h"

namespace kavel {

inline constexpr int kJsonSchema = 1;

// The values. An empty JsonPtr is the JSON null. All of them throw std::bad_alloc.
[[nodiscard]] JsonPtr NewJsonObject();
[[nodiscard]] JsonPtr NewJsonArray();
[[nodiscard]] JsonPtr JsonText(const std::string &text);
[[nodiscard]] JsonPtr JsonSigned(std::int64_t number);
[[nodiscard]] JsonPtr JsonUnsigned(std::uint64_t number);
[[nodiscard]] JsonPtr JsonBool(bool value);

template <std::integral Number>
[[nodiscard]] JsonPtr JsonNumber(Number number)
{
    if constexpr (std::signed_integral<Number>) {
        return JsonSigned(number);
    } else {
        return JsonUnsigned(number);
    }
}

void AddMember(json_object *object, const char *name, JsonPtr value);
void AddElement(json_object *array, JsonPtr value);

// The array that is the member `name` of the object; an empty one is added if there is none.
[[nodiscard]] json_object *ArrayOf(json_object *object, const char *name);

// An object with the member `schema`.
[[nodiscard]] JsonPtr NewJsonDocument();

// The text of a JSON value, indented. Characters that must not reach a terminal are escaped: see PrintableJson().
[[nodiscard]] std::string JsonDocument(json_object *json);

// The same without blanks and without a line feed at the end.
[[nodiscard]] std::string JsonLine(json_object *json);

} // namespace kavel

#endif

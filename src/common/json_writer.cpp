#include "json_writer.h"

#include <new>

#include "printable.h"

namespace kavel {

namespace {

JsonPtr Made(json_object *value)
{
    return value != nullptr ? JsonPtr(value) : throw std::bad_alloc();
}

std::string WrittenJson(json_object *json, int format)
{
    const char *const text = json_object_to_json_string_ext(json, format | JSON_C_TO_STRING_NOSLASHESCAPE);
    return text != nullptr ? PrintableJson(text) : throw std::bad_alloc();
}

} // namespace

JsonPtr NewJsonObject()
{
    return Made(json_object_new_object());
}

JsonPtr NewJsonArray()
{
    return Made(json_object_new_array());
}

JsonPtr JsonText(const std::string &text)
{
    return Made(json_object_new_string_len(text.data(), static_cast<int>(text.size())));
}

JsonPtr JsonSigned(std::int64_t number)
{
    return Made(json_object_new_int64(number));
}

JsonPtr JsonUnsigned(std::uint64_t number)
{
    return Made(json_object_new_uint64(number));
}

JsonPtr JsonBool(bool value)
{
    return Made(json_object_new_boolean(value ? 1 : 0));
}

void AddMember(json_object *object, const char *name, JsonPtr value)
{
    if (json_object_object_add(object, name, value.release()) != 0) {
        throw std::bad_alloc();
    }
}

void AddElement(json_object *array, JsonPtr value)
{
    if (json_object_array_add(array, value.release()) != 0) {
        throw std::bad_alloc();
    }
}

json_object *ArrayOf(json_object *object, const char *name)
{
    if (!HasKey(object, name)) {
        AddMember(object, name, NewJsonArray());
    }
    return json_object_object_get(object, name);
}

JsonPtr NewJsonDocument()
{
    JsonPtr object = NewJsonObject();
    AddMember(object.get(), "schema", JsonNumber(kJsonSchema));
    return object;
}

std::string JsonDocument(json_object *json)
{
    return WrittenJson(json, JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_SPACED) + "\n";
}

std::string JsonLine(json_object *json)
{
    return WrittenJson(json, JSON_C_TO_STRING_PLAIN);
}

} // namespace kavel

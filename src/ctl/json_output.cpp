#include "json_output.h"

#include <new>

#include "printable.h"

namespace kavel::ctl {

namespace {

JsonPtr Made(json_object *value)
{
    return value != nullptr ? JsonPtr(value) : throw std::bad_alloc();
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

JsonPtr FindingJson(const Kavel__Finding &finding)
{
    JsonPtr object = NewJsonObject();
    AddMember(object.get(), "code", JsonText(finding.code));
    AddMember(object.get(), "text", JsonText(finding.text));
    if (finding.remedy != nullptr) {
        AddMember(object.get(), "do", JsonText(finding.remedy));
    }
    return object;
}

std::string JsonDocument(json_object *json)
{
    const int format = JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_SPACED | JSON_C_TO_STRING_NOSLASHESCAPE;
    const char *const text = json_object_to_json_string_ext(json, format);
    return text != nullptr ? PrintableJson(text) + "\n" : throw std::bad_alloc();
}

} // namespace kavel::ctl

// The wrapped json-c calls: those that create, add, print and release values, and the one that reads a number. Without
// a current host they call the real ones for the tests themselves. The other calls that read a tree are not wrapped.
#include <cerrno>

#include "host.h"

using fakehost::EntryKind;
using fakehost::Host;

extern "C" {
json_object *__real_json_object_new_object(void);
json_object *__real_json_object_new_array(void);
json_object *__real_json_object_new_boolean(json_bool Value);
json_object *__real_json_object_new_int(int32_t Value);
json_object *__real_json_object_new_string(const char *Value);
json_object *__real_json_tokener_parse(const char *Text);
int __real_json_object_object_add(json_object *Parent, const char *Key, json_object *Value);
int __real_json_object_array_add(json_object *Parent, json_object *Value);
const char *__real_json_object_to_json_string(json_object *Tree);
int __real_json_object_put(json_object *Tree);
int32_t __real_json_object_get_int(const json_object *Value);
json_object *__wrap_json_object_new_object(void);
json_object *__wrap_json_object_new_array(void);
json_object *__wrap_json_object_new_boolean(json_bool Value);
json_object *__wrap_json_object_new_int(int32_t Value);
json_object *__wrap_json_object_new_string(const char *Value);
json_object *__wrap_json_tokener_parse(const char *Text);
int __wrap_json_object_object_add(json_object *Parent, const char *Key, json_object *Value);
int __wrap_json_object_array_add(json_object *Parent, json_object *Value);
const char *__wrap_json_object_to_json_string(json_object *Tree);
int __wrap_json_object_put(json_object *Tree);
int32_t __wrap_json_object_get_int(const json_object *Value);
}

namespace fakehost {

JsonBook::~JsonBook()
{
    for (json_object *Each : m_Owned) {
        static_cast<void>(__real_json_object_put(Each));
    }
}

json_object *JsonBook::Made(json_object *Tree)
{
    if (Tree != nullptr) {
        m_Owned.insert(Tree);
    }
    return Tree;
}

bool JsonBook::MayBeAdopted(json_object *Tree)
{
    const bool Owned = m_Owned.contains(Tree);
    if (!Owned) {
        m_Host.Violation("a JSON value added that is not the module's, or that has a parent");
    }
    return Owned;
}

bool JsonBook::Release(json_object *Tree)
{
    const bool Owned = m_Owned.erase(Tree) == 1;
    if (!Owned) {
        m_Host.Violation("a JSON value released that is not the module's, or not any more");
    }
    return Owned;
}

void JsonBook::ReportLeaks()
{
    if (!m_Owned.empty()) {
        m_Host.Violation("JSON values never released: " + std::to_string(m_Owned.size()));
    }
}

} // namespace fakehost

namespace {

template <typename Make>
json_object *MakeTree(const char *Name, Make MakeReal)
{
    Host *Here = Host::CurrentOrNull();
    if (Here == nullptr) {
        return MakeReal();
    }
    return Here->Enter(EntryKind::Text, Name).has_value() ? nullptr : Here->Json.Made(MakeReal());
}

// For a failed addition, json-c returns -1 and the caller keeps the value.
template <typename Add>
int AddTo(const char *Name, json_object *Value, Add AddReal)
{
    Host *Here = Host::CurrentOrNull();
    if (Here == nullptr) {
        return AddReal();
    }
    if (Here->Enter(EntryKind::Text, Name).has_value() || !Here->Json.MayBeAdopted(Value)) {
        return -1;
    }
    const int Result = AddReal();
    if (Result == 0) {
        Here->Json.Adopted(Value);
    }
    return Result;
}

} // namespace

json_object *__wrap_json_object_new_object(void)
{
    return MakeTree("json_object_new_object", __real_json_object_new_object);
}

json_object *__wrap_json_object_new_array(void)
{
    return MakeTree("json_object_new_array", __real_json_object_new_array);
}

json_object *__wrap_json_object_new_boolean(json_bool Value)
{
    return MakeTree("json_object_new_boolean", [Value] { return __real_json_object_new_boolean(Value); });
}

json_object *__wrap_json_object_new_int(int32_t Value)
{
    return MakeTree("json_object_new_int", [Value] { return __real_json_object_new_int(Value); });
}

json_object *__wrap_json_object_new_string(const char *Value)
{
    return MakeTree("json_object_new_string", [Value] { return __real_json_object_new_string(Value); });
}

json_object *__wrap_json_tokener_parse(const char *Text)
{
    return MakeTree("json_tokener_parse", [Text] { return __real_json_tokener_parse(Text); });
}

int __wrap_json_object_object_add(json_object *Parent, const char *Key, json_object *Value)
{
    return AddTo("json_object_object_add", Value, [=] { return __real_json_object_object_add(Parent, Key, Value); });
}

int __wrap_json_object_array_add(json_object *Parent, json_object *Value)
{
    return AddTo("json_object_array_add", Value, [=] { return __real_json_object_array_add(Parent, Value); });
}

const char *__wrap_json_object_to_json_string(json_object *Tree)
{
    Host *Here = Host::CurrentOrNull();
    const bool Fails = Here != nullptr && Here->Enter(EntryKind::Text, "json_object_to_json_string").has_value();
    return Fails ? nullptr : __real_json_object_to_json_string(Tree);
}

int __wrap_json_object_put(json_object *Tree)
{
    Host *Here = Host::CurrentOrNull();
    if (Here == nullptr) {
        return __real_json_object_put(Tree);
    }
    Here->Note(EntryKind::Text, "json_object_put");
    return Here->Json.Release(Tree) ? __real_json_object_put(Tree) : 0;
}

// Only some versions of json-c report a value that is no number with errno, so a test makes this call fail by name.
int32_t __wrap_json_object_get_int(const json_object *Value)
{
    Host *Here = Host::CurrentOrNull();
    if (Here == nullptr) {
        return __real_json_object_get_int(Value);
    }
    Here->Note(EntryKind::Text, "json_object_get_int");
    const std::optional<int> Error = Here->Failures.NextNamed("json_object_get_int");
    if (!Error.has_value()) {
        return __real_json_object_get_int(Value);
    }
    errno = -*Error;
    return 0;
}

// A message as JSON: if it is accepted, the encoded message must have the same fields as the JSON, which has no key
// twice in an object. The reading that collects all errors must accept the same texts.
#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include <json-c/json.h>

#include "advanced_dns.pb-c.h"
#include "fuzz.h"
#include "input_error.h"
#include "json_message.h"

namespace {

struct FreeMessage {
    void operator()(ProtobufCMessage *Message) const { protobuf_c_message_free_unpacked(Message, nullptr); }
};
using MessagePtr = std::unique_ptr<ProtobufCMessage, FreeMessage>;

struct FreeJson {
    void operator()(json_object *Value) const { json_object_put(Value); }
};

template <typename T>
const T &At(const void *Place)
{
    return *static_cast<const T *>(Place);
}

bool SameMessage(const ProtobufCMessage &Message, json_object *Json);

bool SameNumber(uint32_t Value, json_object *Json)
{
    if (json_object_get_type(Json) == json_type_int) {
        return json_object_get_int64(Json) == Value;
    }
    const std::string Text = json_object_get_string(Json);
    if (Text == "reload" || Text == "reboot") {
        return Value == (Text == "reboot" ? 1 : 0);
    }
    in_addr Address{};
    return inet_pton(AF_INET, Text.c_str(), &Address) == 1 && ntohl(Address.s_addr) == Value;
}

bool SameBytes(const ProtobufCBinaryData &Value, json_object *Json)
{
    std::array<uint8_t, 16> Address{};
    return inet_pton(AF_INET6, json_object_get_string(Json), Address.data()) == 1 && Value.len == Address.size() &&
           std::equal(Address.begin(), Address.end(), Value.data);
}

bool SameText(const char *Value, json_object *Json)
{
    return Value != nullptr && std::string_view(Value) == json_object_get_string(Json);
}

bool SameValue(const ProtobufCFieldDescriptor &Field, const void *Value, json_object *Json)
{
    switch (Field.type) {
    case PROTOBUF_C_TYPE_BOOL:
        return (At<protobuf_c_boolean>(Value) != 0) == (json_object_get_boolean(Json) != 0);
    case PROTOBUF_C_TYPE_UINT32:
        return SameNumber(At<uint32_t>(Value), Json);
    case PROTOBUF_C_TYPE_STRING:
        return SameText(At<const char *>(Value), Json);
    case PROTOBUF_C_TYPE_BYTES:
        return SameBytes(At<ProtobufCBinaryData>(Value), Json);
    case PROTOBUF_C_TYPE_MESSAGE:
        return SameMessage(*At<const ProtobufCMessage *>(Value), Json);
    default:
        return false;
    }
}

size_t SizeOf(const ProtobufCFieldDescriptor &Field)
{
    switch (Field.type) {
    case PROTOBUF_C_TYPE_UINT32:
        return sizeof(uint32_t);
    case PROTOBUF_C_TYPE_BYTES:
        return sizeof(ProtobufCBinaryData);
    default:
        return sizeof(void *);
    }
}

bool SameList(const ProtobufCFieldDescriptor &Field, size_t Count, const char *First, json_object *Json)
{
    if (Count != (Json == nullptr ? 0 : json_object_array_length(Json))) {
        return false;
    }
    for (size_t Each = 0; Each < Count; ++Each) {
        if (!SameValue(Field, First + Each * SizeOf(Field), json_object_array_get_idx(Json, Each))) {
            return false;
        }
    }
    return true;
}

bool IsPresent(const ProtobufCFieldDescriptor &Field, const char *Base)
{
    const bool IsPointer = Field.type == PROTOBUF_C_TYPE_STRING || Field.type == PROTOBUF_C_TYPE_MESSAGE;
    if (Field.label == PROTOBUF_C_LABEL_REQUIRED) {
        return true;
    }
    return IsPointer ? At<const void *>(Base + Field.offset) != nullptr
                     : At<protobuf_c_boolean>(Base + Field.quantifier_offset) != 0;
}

bool SameField(const ProtobufCFieldDescriptor &Field, const char *Base, json_object *Json)
{
    if (Field.label == PROTOBUF_C_LABEL_REPEATED) {
        return SameList(Field, At<size_t>(Base + Field.quantifier_offset), At<const char *>(Base + Field.offset), Json);
    }
    const bool Present = IsPresent(Field, Base);
    return Present == (Json != nullptr) && (!Present || SameValue(Field, Base + Field.offset, Json));
}

// Uses the descriptor of the message, which the encoder does not use.
bool SameMessage(const ProtobufCMessage &Message, json_object *Json)
{
    const auto *Base = reinterpret_cast<const char *>(&Message);
    for (unsigned Each = 0; Each < Message.descriptor->n_fields; ++Each) {
        const ProtobufCFieldDescriptor &Field = Message.descriptor->fields[Each];
        if (!SameField(Field, Base, json_object_object_get(Json, Field.name))) {
            fuzz::Fail(std::string("the field ") + Field.name + " of " + Message.descriptor->name +
                       " is not what the JSON says");
        }
    }
    return true;
}

void CheckAccepted(const kavel::ctl::EncodedMessage &Encoded, const std::string &Text)
{
    const bool IsPop = Encoded.summary.starts_with("POP");
    const ProtobufCMessageDescriptor &Type = IsPop ? pop_dnsmasq_conf__descriptor : dnsmasq_conf__descriptor;
    const MessagePtr Message(protobuf_c_message_unpack(&Type, nullptr, Encoded.bytes.size(), Encoded.bytes.data()));
    fuzz::Require(Message != nullptr, "an encoded message cannot be unpacked");
    const std::unique_ptr<json_object, FreeJson> Json(json_tokener_parse(Text.c_str()));
    SameMessage(*Message, Json.get());
    std::vector<uint8_t> Packed(protobuf_c_message_get_packed_size(Message.get()));
    protobuf_c_message_pack(Message.get(), Packed.data());
    fuzz::Require(Packed == Encoded.bytes, "an encoded message has other bytes when it is packed again");
}

// The members that a text has, by the colons outside its strings.
size_t MembersInText(const std::string &Text)
{
    size_t Count = 0;
    bool IsInString = false;
    for (size_t Each = 0; Each < Text.size(); ++Each) {
        if (Text[Each] == '"') {
            IsInString = !IsInString;
        } else if (Text[Each] == '\\' && IsInString) {
            ++Each;
        }
        Count += !IsInString && Text[Each] == ':' ? 1 : 0;
    }
    return Count;
}

// The members that are left when json-c has read the text: of a key that is there twice, one.
size_t MembersOf(json_object *Json)
{
    size_t Count = 0;
    if (json_object_get_type(Json) == json_type_array) {
        for (size_t Each = 0; Each < json_object_array_length(Json); ++Each) {
            Count += MembersOf(json_object_array_get_idx(Json, Each));
        }
    }
    if (json_object_get_type(Json) == json_type_object) {
        json_object_object_foreach(Json, Key, Value)
        {
            static_cast<void>(Key);
            Count += 1 + MembersOf(Value);
        }
    }
    return Count;
}

void CheckLine(const std::string &Refusal)
{
    if (!fuzz::IsOneLine(Refusal)) {
        fuzz::Fail("a refusal is not one line: " + Refusal);
    }
}

// The text of the first error that is collected; empty if there is none.
std::string FirstCollected(const std::string &Text, kavel::ctl::MessageFor Target)
{
    std::string First;
    const auto Encoded = kavel::ctl::EncodeJson(Text, Target, [&](const std::string &Error) {
        CheckLine(Error);
        First = First.empty() ? Error : First;
    });
    fuzz::Require(Encoded.has_value() == First.empty(), "a message with errors is encoded, or one without is not");
    return First;
}

void CheckFor(const std::string &Text, kavel::ctl::MessageFor Target)
{
    const std::string First = FirstCollected(Text, Target);
    try {
        CheckAccepted(kavel::ctl::EncodeJson(Text, Target), Text);
        fuzz::RequireSame("the first error of an accepted message", {First}, {""});
        const std::unique_ptr<json_object, FreeJson> Json(json_tokener_parse(Text.c_str()));
        fuzz::Require(MembersInText(Text) == MembersOf(Json.get()),
                      "a message with a key that is there twice is accepted");
    } catch (const kavel::InputError &Refused) {
        CheckLine(Refused.what());
        fuzz::RequireSame("the first error of a refused message", {First}, {Refused.what()});
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size)
{
    const std::string Text(Data, Data + Size);
    CheckFor(Text, kavel::ctl::MessageFor::kVpn);
    CheckFor(Text, kavel::ctl::MessageFor::kBox);
    return 0;
}

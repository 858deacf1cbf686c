#include "presence.h"

#include <array>

#include "json_reader.h"
#include "json_writer.h"
#include "text_members.h"

namespace kavel::broker {

namespace {

constexpr std::size_t kVersionMax = 64; // bytes; a longer one is cut

constexpr auto kRequiredMember = kavel::Presence::kRequired;
constexpr auto kOptionalMember = kavel::Presence::kOptional;

constexpr std::array<JsonMember<Presence>, 5> kPresenceMembers{{
    {"schema", kRequiredMember, [](const JsonValue &value, Presence &) { ExpectSchema(value); }},
    {"online", kRequiredMember, [](const JsonValue &value, Presence &presence) { presence.online = value.Bool(); }},
    {"agent", kOptionalMember, [](const JsonValue &value, Presence &presence) { presence.agent = value.Bool(); }},
    {"version", kOptionalMember,
     [](const JsonValue &value, Presence &presence) { presence.version = OneLine(value.String(), kVersionMax); }},
    {"time", kOptionalMember, [](const JsonValue &value, Presence &presence) { presence.time = value.LargeNumber(); }},
}};

} // namespace

std::string PresenceText(const Presence &presence)
{
    const JsonPtr object = NewJsonDocument();
    AddMember(object.get(), "online", JsonBool(presence.online));
    if (presence.agent) {
        AddMember(object.get(), "agent", JsonBool(*presence.agent));
    }
    if (!presence.version.empty()) {
        AddMember(object.get(), "version", JsonText(OneLine(presence.version, kVersionMax)));
    }
    if (presence.time) {
        AddMember(object.get(), "time", JsonNumber(*presence.time));
    }
    return JsonLine(object.get());
}

Presence ParsePresence(std::string_view text)
{
    const JsonPtr json = ParseBounded(text, kPresenceMax);
    Presence presence;
    ReadKnownMembers(JsonValue{json.get(), {}}, kPresenceMembers, presence);
    return presence;
}

} // namespace kavel::broker

#include "result_json.h"

#include <span>

#include "json_output.h"
#include "output.h"

namespace kavel::ctl {

JsonPtr NotesJson(const Kavel__Reply &reply)
{
    JsonPtr notes = NewJsonArray();
    for (const char *note : std::span(reply.notes, reply.n_notes)) {
        AddElement(notes.get(), JsonText(note));
    }
    return notes;
}

JsonPtr WhyJson(const Kavel__Reply &reply)
{
    const char *const why = reply.reason != nullptr ? reply.reason : reply.text;
    return why != nullptr ? JsonText(why) : nullptr;
}

JsonPtr MessageJson(const std::string &file, const Kavel__Reply &reply, const std::string &outcome)
{
    JsonPtr object = NewJsonObject();
    AddMember(object.get(), "file", JsonText(file));
    AddMember(object.get(), "vpn", reply.has_vpn != 0 ? JsonNumber(reply.vpn) : nullptr);
    AddMember(object.get(), "result", JsonNumber(reply.result));
    AddMember(object.get(), "outcome", JsonText(outcome));
    AddMember(object.get(), "text", WhyJson(reply));
    if (reply.has_enabled != 0 && reply.has_running != 0) {
        AddMember(object.get(), "enabled", JsonBool(reply.enabled != 0));
        AddMember(object.get(), "running", JsonBool(reply.running != 0));
    }
    if (reply.summary != nullptr) {
        AddMember(object.get(), "summary", SummaryJson(*reply.summary));
    }
    AddMember(object.get(), "notes", NotesJson(reply));
    return object;
}

} // namespace kavel::ctl

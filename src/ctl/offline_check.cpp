#include "offline_check.h"

#include <optional>
#include <ostream>

#include "errors.h"
#include "files.h"
#include "json_output.h"
#include "output.h"

namespace kavel::ctl {

namespace {

struct CheckedFile {
    std::string name;
    std::vector<std::string> errors;
    std::string summary; // empty if there are errors
};

CheckedFile CheckFile(const std::string &file, MessageFor target)
{
    CheckedFile checked{.name = DisplayName(file), .errors = {}, .summary = {}};
    try {
        const auto note = [&](const std::string &error) { checked.errors.push_back(error); };
        if (const std::optional<EncodedMessage> message = EncodeJson(ReadInput(file), target, note)) {
            checked.summary = message->summary;
        }
    } catch (const InputError &error) {
        checked.errors.emplace_back(error.what());
    }
    return checked;
}

void PrintChecked(const Session &session, const CheckedFile &checked)
{
    for (const std::string &error : checked.errors) {
        session.err << "vqctl: " << Printable(checked.name + ": " + error) << '\n';
    }
    if (checked.errors.empty()) {
        session.out << Printable(checked.name + ": " + checked.summary) << std::endl;
    }
}

JsonPtr CheckedJson(const CheckedFile &checked)
{
    JsonPtr object = NewJsonObject();
    AddMember(object.get(), "file", JsonText(checked.name));
    if (checked.errors.empty()) {
        AddMember(object.get(), "message", JsonText(checked.summary));
    }
    JsonPtr errors = NewJsonArray();
    for (const std::string &error : checked.errors) {
        AddElement(errors.get(), JsonText(Printable(error)));
    }
    AddMember(object.get(), "errors", std::move(errors));
    return object;
}

} // namespace

int CheckOffline(const Session &session, const std::vector<std::string> &files, MessageFor target)
{
    int code = kDone;
    JsonPtr all = NewJsonArray();
    for (const std::string &file : files) {
        const CheckedFile checked = CheckFile(file, target);
        code = checked.errors.empty() ? code : kBadInput;
        if (session.json) {
            AddElement(all.get(), CheckedJson(checked));
        } else {
            PrintChecked(session, checked);
        }
    }
    if (session.json) {
        JsonPtr document = NewJsonDocument();
        AddMember(document.get(), "files", std::move(all));
        session.out << JsonDocument(document.get());
    }
    return code;
}

} // namespace kavel::ctl

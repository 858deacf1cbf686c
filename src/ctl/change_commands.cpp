#include "change_commands.h"

#include <algorithm>
#include <ostream>
#include <span>
#include <utility>

#include "errors.h"
#include "files.h"
#include "json_message.h"
#include "json_output.h"
#include "message_changes.h"
#include "output.h"

namespace kavel::ctl {

namespace {

struct NewMessage {
    std::string file; // its name in the output of vqctl
    EncodedMessage message;
};

std::vector<NewMessage> ReadMessages(const Messages &files)
{
    std::vector<NewMessage> messages;
    for (const std::string &file : files.files) {
        const std::string name = DisplayName(file);
        messages.push_back({name, WithFileName(name, [&] { return EncodeJson(ReadInput(file), files.target); })});
    }
    return messages;
}

// The outcome of a comparison that the agent was asked for.
struct FileChanges {
    std::string file;
    std::optional<std::uint32_t> vpn;
    std::string refusal; // why the message would be refused; empty: it would not
    Comparison comparison;
};

ReplyPtr CheckMessage(const Session &session, Client &client, NewMessage &message)
{
    Kavel__Request request = NewRequest(KAVEL__REQUEST__VERB__CHECK);
    request.has_message = 1;
    request.message = {message.message.bytes.size(), message.message.bytes.data()};
    return Exchange(session, client, WithFileName(message.file, [&] { return PackRequest(request); }),
                    message.file + " to be checked");
}

ReplyPtr AskForInForce(const Session &session, Client &client, std::uint32_t vpn)
{
    const Kavel__Request request = NewRequest(KAVEL__REQUEST__VERB__IN_FORCE, vpn);
    return Exchange(session, client, PackRequest(request), "what is in force for " + SubjectText(vpn));
}

// Nothing when the agent refuses to tell what is in force: its exit code is in `code` then.
std::optional<FileChanges> ChangesOfFile(const Session &session, Client &client, NewMessage &message, int &code)
{
    FileChanges changes{.file = message.file, .vpn = std::nullopt, .refusal = {}, .comparison = {}};
    const ReplyPtr checked = CheckMessage(session, client, message);
    changes.vpn = VpnOf(*checked);
    if (checked->result < 0 || !changes.vpn) {
        changes.refusal = RefusalText(*checked);
        return changes;
    }
    const ReplyPtr inForce = AskForInForce(session, client, *changes.vpn);
    if (inForce->result < 0) {
        const int refused = ReportRefusal(session, message.file + ": " + SubjectText(changes.vpn), *inForce);
        code = inForce->start != nullptr ? kStarting : refused;
        return std::nullopt;
    }
    changes.comparison = Compare(InForceIn(*inForce), {message.message.bytes, message.message.isForPop});
    return changes;
}

std::string TextOf(const FileChanges &changes)
{
    const std::string subject = Printable(changes.file) + ": " + SubjectText(changes.vpn) + ": ";
    if (!changes.refusal.empty()) {
        return subject + "would be refused " + changes.refusal + "\n";
    }
    return subject + SummaryText(changes.comparison) + "\n" + ChangeLines(changes.comparison);
}

JsonPtr JsonOf(const FileChanges &changes)
{
    JsonPtr object = changes.refusal.empty() ? ComparisonJson(changes.comparison) : NewJsonObject();
    AddMember(object.get(), "file", JsonText(changes.file));
    AddMember(object.get(), "vpn", changes.vpn ? JsonNumber(*changes.vpn) : JsonPtr());
    if (!changes.refusal.empty()) {
        AddMember(object.get(), "refused", JsonText(changes.refusal));
    }
    return object;
}

} // namespace

int Diff(const Session &session, const Messages &files)
{
    std::vector<NewMessage> messages = ReadMessages(files);
    Client client = Client::Connect(session.socket, session.timeout);
    JsonPtr list = NewJsonArray();
    int code = kDone;
    for (NewMessage &message : messages) {
        const auto changes = ChangesOfFile(session, client, message, code);
        if (!changes) {
            continue;
        }
        if (!changes->refusal.empty() || !changes->comparison.changes.empty()) {
            code = std::max<int>(code, kRefused);
        }
        if (session.json) {
            AddElement(list.get(), JsonOf(*changes));
        } else {
            session.out << TextOf(*changes);
        }
    }
    if (session.json) {
        const JsonPtr document = NewJsonDocument();
        AddMember(document.get(), "files", std::move(list));
        session.out << JsonDocument(document.get());
    }
    return code;
}

} // namespace kavel::ctl

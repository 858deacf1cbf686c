#include "export_commands.h"

#include <cerrno>
#include <cstring>
#include <ostream>
#include <span>
#include <sys/stat.h>
#include <utility>
#include <vector>

#include "errors.h"
#include "files.h"
#include "history_entries.h"
#include "json_message.h"
#include "json_output.h"
#include "output.h"

namespace kavel::ctl {

namespace {

constexpr mode_t kExportDirectoryMode = 0755;

void MakeDirectory(const std::string &directory)
{
    if (::mkdir(directory.c_str(), kExportDirectoryMode) != 0 && errno != EEXIST) {
        throw InputError(directory + ": cannot be created: " + std::strerror(errno));
    }
}

struct Exported {
    std::uint32_t vpn = 0;
    JsonPtr message;
};

// Nothing when the record cannot be exported, which is reported.
JsonPtr ExportOne(const Session &session, Client &client, std::uint32_t vpn)
{
    const Kavel__Request request = NewRequest(KAVEL__REQUEST__VERB__STORE_EXPORT, vpn);
    const ReplyPtr reply = Exchange(session, client, PackRequest(request), "store export of " + SubjectText(vpn));
    if (reply->result < 0) {
        ReportRefusal(session, SubjectText(vpn), *reply);
        return {};
    }
    if (reply->n_messages == 0) {
        throw AgentError("the agent's reply holds no message");
    }
    const Kavel__PackedMessage &message = *reply->messages[0];
    return NamedMessageJson({{message.message.data, message.message.len}, message.pop != 0}, vpn);
}

// Nothing when the agent refuses to tell.
std::optional<std::vector<std::uint32_t>> StoredVpns(const Session &session, Client &client)
{
    const Kavel__Request request = NewRequest(KAVEL__REQUEST__VERB__STORE_LIST);
    const ReplyPtr reply = Exchange(session, client, PackRequest(request), "store list");
    if (reply->result < 0) {
        ReportRefusal(session, "store", *reply);
        return std::nullopt;
    }
    std::vector<std::uint32_t> vpns;
    for (const Kavel__StoredRecord *record : std::span(reply->stored, reply->n_stored)) {
        vpns.push_back(record->vpn);
    }
    return vpns;
}

std::string WriteMessage(const std::string &directory, const Exported &exported)
{
    std::string file = directory + "/vpn_" + std::to_string(exported.vpn) + ".json";
    const std::string text = JsonDocument(exported.message.get());
    WithFileName(file, [&] { WriteOutput(file, {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()}); });
    return file;
}

JsonPtr ExportedJson(Exported exported, const std::optional<std::string> &file)
{
    JsonPtr object = NewJsonObject();
    AddMember(object.get(), "vpn", JsonNumber(exported.vpn));
    if (file) {
        AddMember(object.get(), "file", JsonText(*file));
    }
    AddMember(object.get(), "message", std::move(exported.message));
    return object;
}

void PrintExported(const Session &session, std::vector<Exported> messages, const std::optional<std::string> &directory)
{
    JsonPtr list = NewJsonArray();
    for (Exported &exported : messages) {
        const auto file = directory ? std::optional(WriteMessage(*directory, exported)) : std::nullopt;
        if (session.json) {
            AddElement(list.get(), ExportedJson(std::move(exported), file));
        } else {
            session.out << (file ? SubjectText(exported.vpn) + ": " + Printable(*file) + "\n"
                                 : JsonDocument(exported.message.get()));
        }
    }
    if (session.json) {
        const JsonPtr document = NewJsonDocument();
        AddMember(document.get(), "messages", std::move(list));
        session.out << JsonDocument(document.get());
    }
}

ReplyPtr ExchangeHistory(const Session &session, std::optional<std::uint32_t> vpn)
{
    return ExchangeOne(session, NewRequest(KAVEL__REQUEST__VERB__HISTORY, vpn), "history");
}

} // namespace

JsonPtr NamedMessageJson(const PackedConf &packed, std::uint32_t vpn)
{
    JsonPtr message = MessageJson(packed);
    if (!packed.isForPop && !HasKey(message.get(), "vpnid")) {
        AddMember(message.get(), "vpnid", JsonNumber(vpn));
    }
    return message;
}

int StoreExport(const Session &session, std::optional<std::uint32_t> vpn, const std::optional<std::string> &directory)
{
    if (!vpn && !directory && !session.json) {
        throw InputError("store export: all records need --output DIR; one file is written for each");
    }
    Client client = Client::Connect(session.socket, session.timeout);
    const auto vpns = vpn ? std::optional(std::vector{*vpn}) : StoredVpns(session, client);
    if (!vpns) {
        return kRefused;
    }
    if (directory) {
        MakeDirectory(*directory);
    }
    std::vector<Exported> messages;
    for (const std::uint32_t one : *vpns) {
        if (JsonPtr message = ExportOne(session, client, one)) {
            messages.push_back({one, std::move(message)});
        }
    }
    const bool isComplete = messages.size() == vpns->size();
    if (!messages.empty() || isComplete) {
        PrintExported(session, std::move(messages), directory);
    }
    return isComplete ? kDone : kRefused;
}

int History(const Session &session, std::optional<std::uint32_t> vpn)
{
    const ReplyPtr reply = ExchangeHistory(session, vpn);
    if (reply->result < 0) {
        return ReportRefusal(session, vpn ? SubjectText(vpn) : "history", *reply);
    }
    const HistoryEntries entries(reply->history, reply->n_history);
    session.out << (session.json ? HistoryJson(entries) : HistoryTable(entries));
    return kDone;
}

int ShowHistoryMessage(const Session &session, std::uint32_t vpn, std::uint32_t number)
{
    const ReplyPtr reply = ExchangeHistory(session, vpn);
    if (reply->result < 0) {
        return ReportRefusal(session, SubjectText(vpn), *reply);
    }
    const Kavel__HistoryEntry &entry = EntryOf(HistoryEntries(reply->history, reply->n_history), number);
    JsonPtr message = NamedMessageJson(MessageOf(entry, number), vpn);
    if (!session.json) {
        session.out << JsonDocument(message.get());
        return kDone;
    }
    const JsonPtr document = NewJsonDocument();
    AddMember(document.get(), "vpn", JsonNumber(vpn));
    AddMember(document.get(), "number", JsonNumber(number));
    AddMember(document.get(), "message", std::move(message));
    session.out << JsonDocument(document.get());
    return kDone;
}

} // namespace kavel::ctl

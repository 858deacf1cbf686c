// The part of a bundle that the agent tells.
#include <algorithm>
#include <chrono>
#include <functional>
#include <span>
#include <sstream>
#include <vector>

#include "bundle_collector.h"
#include "commands.h"
#include "deadline.h"
#include "errors.h"
#include "export_commands.h"
#include "metrics_commands.h"
#include "output.h"
#include "printable.h"
#include "status_command.h"
#include "why_command.h"

namespace kavel::ctl {

namespace {

constexpr std::chrono::milliseconds kAgentTimeout{5000};
constexpr std::chrono::milliseconds kAllAnswers{30000}; // of a box with hundreds of VPNs

// Asks until the agent fails to answer, or the time is over.
class AgentPart {
  public:
    AgentPart(const Session &session, BundleContent &content)
        : session_(session), timeout_(std::min(session.timeout, kAgentTimeout)), content_(content)
    {
    }

    [[nodiscard]] bool Answers() const { return answers_; }

    // The file holds what the command prints.
    void AddCommand(const std::string &file, bool isJson, const std::function<int(const Session &session)> &command)
    {
        std::ostringstream out;
        std::ostringstream err;
        Session own{out, err};
        own.socket = session_.socket;
        own.json = isJson;
        own.timeout = timeout_;
        Ask(file, [&] {
            const int code = command(own);
            PrintDocument(own);
            content_.Add({file, out.str()});
            if (!err.str().empty()) {
                content_.Note(file, "exit status " + std::to_string(code) + ": " + err.str());
            }
        });
    }

    // `render` makes the text of the file from the reply.
    void AddReply(const std::string &file, const Kavel__Request &request,
                  const std::function<std::string(const Kavel__Reply &reply)> &render)
    {
        std::ostringstream ignored;
        Session own{ignored, ignored};
        own.socket = session_.socket;
        own.timeout = timeout_;
        Ask(file, [&] {
            const ReplyPtr reply = ExchangeOne(own, request, file);
            if (reply->result < 0) {
                content_.Note(file, "refused " + RefusalText(*reply));
            } else {
                content_.Add({file, render(*reply)});
            }
        });
    }

  private:
    template <typename Work>
    void Ask(const std::string &file, Work work)
    {
        if (!answers_ || deadline_.HasPassed()) {
            content_.Note(file,
                          answers_ ? "not asked for: the time is over" : "not asked for: the agent does not answer");
            return;
        }
        try {
            work();
        } catch (const AgentError &error) {
            answers_ = false;
            content_.Note(file, error.what());
        }
    }

    const Session &session_;
    std::chrono::milliseconds timeout_;
    BundleContent &content_;
    Deadline deadline_{kAllAnswers};
    bool answers_ = true;
};

std::string StoredRecordText(const Kavel__Reply &reply)
{
    return reply.has_stored_text != 0
               ? std::string(reinterpret_cast<const char *>(reply.stored_text.data), reply.stored_text.len)
               : "";
}

std::string LogStateText(const Kavel__Reply &reply)
{
    return reply.log != nullptr ? std::string(reply.log->level) + ", configured " + reply.log->configured + '\n' : "";
}

} // namespace

bool CollectFromAgent(const Session &session, BundleContent &content)
{
    AgentPart part(session, content);
    const auto status = [](const Session &own) { return Status(own, StatusOptions()); };
    part.AddCommand("agent/status.txt", false, status);
    part.AddCommand("agent/status.json", true, status);
    part.AddCommand("agent/why.txt", false, [](const Session &own) { return Why(own, std::nullopt); });
    part.AddCommand("agent/metrics.prom", false, [](const Session &own) { return Metrics(own, std::nullopt); });
    part.AddCommand("agent/history.txt", false, [](const Session &own) { return History(own, std::nullopt); });
    part.AddReply("agent/log_level.txt", NewRequest(KAVEL__REQUEST__VERB__LOG_LEVEL), LogStateText);
    part.AddCommand("agent/store.txt", false, StoreList);

    std::vector<std::uint32_t> stored;
    part.AddReply("agent/records.txt", NewRequest(KAVEL__REQUEST__VERB__STORE_LIST), [&](const Kavel__Reply &reply) {
        std::ranges::transform(std::span(reply.stored, reply.n_stored), std::back_inserter(stored),
                               &Kavel__StoredRecord::vpn);
        return Counted(stored.size(), "record") + '\n';
    });
    for (const std::uint32_t vpn : stored) {
        part.AddReply("agent/vpn_" + std::to_string(vpn) + "/stored.json",
                      NewRequest(KAVEL__REQUEST__VERB__STORE_SHOW, vpn), StoredRecordText);
    }
    return part.Answers();
}

} // namespace kavel::ctl

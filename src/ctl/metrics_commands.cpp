#include "metrics_commands.h"

#include <ostream>

#include "errors.h"
#include "files.h"
#include "json_output.h"

namespace kavel::ctl {

namespace {

constexpr const char *kNoAgentMetrics = "# HELP kavel_agent_up Whether the agent answers.\n"
                                        "# TYPE kavel_agent_up gauge\n"
                                        "kavel_agent_up 0\n";

std::string AsOutput(const Session &session, const std::string &metrics)
{
    if (!session.json) {
        return metrics;
    }
    const JsonPtr document = NewJsonDocument();
    AddMember(document.get(), "metrics", JsonText(metrics));
    return JsonDocument(document.get());
}

void WriteTarget(const std::string &target, const std::string &content)
{
    try {
        ReplaceOutput(target, content);
    } catch (const InputError &error) {
        throw InputError(target + ": " + error.what());
    }
}

ReplyPtr AskForMetrics(const Session &session, const std::optional<std::string> &target)
{
    try {
        ReplyPtr reply = ExchangeOne(session, NewRequest(KAVEL__REQUEST__VERB__METRICS), "metrics");
        if (reply->result >= 0 && reply->metrics == nullptr) {
            throw AgentError("the agent's reply holds no metrics");
        }
        return reply;
    } catch (const AgentError &) {
        if (target) {
            WriteTarget(*target, AsOutput(session, kNoAgentMetrics));
        }
        throw;
    }
}

} // namespace

int Metrics(const Session &session, const std::optional<std::string> &target)
{
    const ReplyPtr reply = AskForMetrics(session, target);
    if (reply->result < 0) {
        return ReportRefusal(session, "metrics", *reply);
    }
    const std::string output = AsOutput(session, reply->metrics);
    if (target) {
        WriteTarget(*target, output);
    } else {
        session.out << output;
    }
    return kDone;
}

} // namespace kavel::ctl

#include "socket/export_requests.h"

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "frame.h"
#include "instances/in_force.h"
#include "socket/request_answers.h"
#include "supervision/content.h"

namespace kavel::agent {
namespace {

// The part of a frame that is left for the other fields of an answer.
constexpr std::size_t kMessageOverhead = 1024;

// Runs `work`; what it throws becomes a refusal with its text.
template <typename Work>
Answer WithRefusals(std::uint32_t vpnId, Work work)
{
    try {
        return work();
    } catch (const std::system_error &failure) {
        return RefusalOf(vpnId, -failure.code().value(), failure.what());
    } catch (const std::runtime_error &failure) {
        return RefusalOf(vpnId, -EINVAL, failure.what());
    }
}

Answer MessageAnswer(Host &host, const ModuleFunctions &module, std::uint32_t vpnId, const InForceContent &content)
{
    SentMessage message{vpnId, MessageOfContent(host, module, vpnId, content), host.config.platform};
    if (message.bytes.size() > control::kFrameMax - kMessageOverhead) {
        return RefusalOf(vpnId, -EOVERFLOW,
                         "its message of " + std::to_string(message.bytes.size()) +
                             " bytes does not fit into an answer");
    }
    Answer answer;
    answer.vpn = vpnId;
    answer.messages.push_back(std::move(message));
    return answer;
}

// Nothing when nothing is in force, or an older agent did not keep its content.
std::optional<InForceContent> ContentInForce(const Instances &instances, std::uint32_t vpnId)
{
    try {
        return InForceFiles(instances).ReadContent(vpnId);
    } catch (const std::system_error &failure) {
        if (failure.code().value() == ENOENT) {
            return std::nullopt;
        }
        throw;
    }
}

// Marks what the agent has undone, in entries of VPNs one after the other.
void MarkUndone(std::vector<SentHistoryEntry> &history)
{
    UndoneEntries undone;
    std::optional<std::uint32_t> vpnId;
    for (SentHistoryEntry &sent : history) {
        if (std::exchange(vpnId, sent.vpn) != sent.vpn) {
            undone = UndoneEntries();
        }
        sent.isUndone = undone.Contains(sent.entry);
    }
}

} // namespace

Answer ShowInForce(Host &host, const ModuleFunctions &module, const Instances &instances, const Kavel__Request &request)
{
    return WithRefusals(request.vpn, [&] {
        const auto content = ContentInForce(instances, request.vpn);
        Answer nothing;
        nothing.vpn = request.vpn;
        return content ? MessageAnswer(host, module, request.vpn, *content) : nothing;
    });
}

Answer ExportStored(Host &host, const ModuleFunctions &module, const Kavel__Request &request)
{
    if (request.has_vpn == 0) {
        return Refusal(-EINVAL, "no vpn is named");
    }
    return WithRefusals(request.vpn, [&] {
        std::optional<std::string> text = host.store.ReadText(request.vpn);
        return text ? MessageAnswer(host, module, request.vpn, {false, *std::move(text)})
                    : RefusalOf(request.vpn, -ENOENT, "nothing is stored for vpn " + std::to_string(request.vpn));
    });
}

Answer ListHistory(Host &host, const Kavel__Request &request)
{
    return WithRefusals(request.vpn, [&] {
        Answer answer;
        const Platform platform = host.config.platform;
        if (request.has_vpn == 0) {
            for (VpnHistoryEntry &read : host.store.ReadHistoryOfAll()) {
                answer.history.push_back({read.vpn, std::move(read.entry), platform});
            }
            MarkUndone(answer.history);
            return answer;
        }
        answer.vpn = request.vpn;
        for (HistoryEntry &entry : host.store.ReadHistory(request.vpn)) {
            answer.history.push_back({request.vpn, std::move(entry), platform});
        }
        MarkUndone(answer.history);
        return answer;
    });
}

} // namespace kavel::agent

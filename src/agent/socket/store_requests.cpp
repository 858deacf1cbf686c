#include "socket/store_requests.h"

#include <cerrno>
#include <string>
#include <system_error>
#include <utility>

#include "frame.h"
#include "socket/request_answers.h"

namespace kavel::agent {
namespace {

// The part of a frame that is left for the other fields of an answer.
constexpr std::size_t kAnswerOverhead = 1024;

template <typename Read>
Answer WithStoreErrors(Read read)
{
    try {
        return read();
    } catch (const std::system_error &failure) {
        return Refusal(-failure.code().value(), failure.what());
    }
}

// The row of a VPN that is not configured is kept, and is shown.
Answer ShowText(Host &host, std::uint32_t vpnId)
{
    const bool isServed = host.config.Serves(vpnId);
    if (!isServed && !host.config.persistence) {
        return NotConfigured(vpnId);
    }
    std::optional<std::string> text = host.store.ReadText(vpnId);
    if (!text && !isServed) {
        return NotConfigured(vpnId);
    }
    if (!text) {
        return Refusal(-ENOENT, "nothing is stored for vpn " + std::to_string(vpnId));
    }
    if (text->size() > control::kFrameMax - kAnswerOverhead) {
        return Refusal(-EOVERFLOW,
                       "its text of " + std::to_string(text->size()) + " bytes does not fit into an answer");
    }
    Answer answer;
    answer.storedText = std::move(text);
    return answer;
}

} // namespace

Answer ListStore(Store &store)
{
    return WithStoreErrors([&] {
        Answer answer;
        answer.stored = store.Read();
        return answer;
    });
}

Answer ShowStored(Host &host, const Kavel__Request &request)
{
    if (request.has_vpn == 0) {
        return Refusal(-EINVAL, "no vpn is named");
    }
    Answer answer = WithStoreErrors([&] { return ShowText(host, request.vpn); });
    answer.vpn = request.vpn;
    return answer;
}

} // namespace kavel::agent

#include "socket/store_requests.h"

#include <cerrno>
#include <string>
#include <system_error>
#include <utility>

#include "frame.h"
#include "services/store.h"

namespace kavel::agent {
namespace {

// Of a frame, for everything in an answer but the stored text.
constexpr std::size_t kAnswerOverhead = 1024;

template <typename Look>
Answer LookInto(Look look)
{
    try {
        return look();
    } catch (const std::system_error &failure) {
        return Refusal(-failure.code().value(), failure.what());
    }
}

Answer ShowText(std::uint32_t vpnId)
{
    std::optional<std::string> text = ReadStoredText(vpnId);
    if (!text) {
        return Refusal(-ENOENT, "nothing is stored for vpn " + std::to_string(vpnId));
    }
    if (text->size() > control::kFrameMax - kAnswerOverhead) {
        return Refusal(-EOVERFLOW, "its text of " + std::to_string(text->size()) + " bytes fits no answer");
    }
    Answer answer;
    answer.storedText = std::move(text);
    return answer;
}

} // namespace

Answer ListStore()
{
    return LookInto([] {
        Answer answer;
        answer.stored = ReadStored();
        return answer;
    });
}

Answer ShowStored(const Kavel__Request &request)
{
    if (request.has_vpn == 0) {
        return Refusal(-EINVAL, "no vpn is named");
    }
    Answer answer = LookInto([&] { return ShowText(request.vpn); });
    answer.vpn = request.vpn;
    return answer;
}

} // namespace kavel::agent

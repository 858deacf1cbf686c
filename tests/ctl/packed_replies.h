// Replies with controller messages in them.
#ifndef KAVEL_TESTS_CTL_PACKED_REPLIES_H
#define KAVEL_TESTS_CTL_PACKED_REPLIES_H

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "fake_agent.h"
#include "json_message.h"

namespace kavel::ctl {

// Without the key `vpnid` the message is for the box.
inline EncodedMessage Encoded(const std::string &json)
{
    const bool isForVpn = json.find("\"vpnid\"") != std::string::npos;
    return EncodeJson(json, isForVpn ? MessageFor::kVpn : MessageFor::kBox);
}

// The reply to IN_FORCE or STORE_EXPORT: the message of `json`, or none.
inline Bytes MessageReply(const std::optional<std::string> &json)
{
    EncodedMessage encoded = json ? Encoded(*json) : EncodedMessage();
    Kavel__PackedMessage message = KAVEL__PACKED_MESSAGE__INIT;
    Kavel__PackedMessage *messages = &message;
    message.vpn = 7;
    message.message = {encoded.bytes.size(), encoded.bytes.data()};
    message.has_pop = message.pop = encoded.isForPop ? 1 : 0;
    return PackReply(0, [&](Kavel__Reply &reply) {
        reply.n_messages = json ? 1 : 0;
        reply.messages = &messages;
    });
}

struct SentEntry {
    std::optional<std::string> json; // nothing: the message is not sent
    std::int32_t result = 0;
    std::string revision = {}; // empty: none
    std::string outcome = "applied";
    std::string sender = "pid 42, uid 0 (vqctl)";
    std::uint32_t vpn = 7;
    bool isUndone = false;
    std::uint64_t bytes = 100; // of a message that is not sent
};

// The reply to HISTORY.
inline Bytes HistoryReply(std::vector<SentEntry> entries)
{
    std::vector<EncodedMessage> encoded(entries.size());
    std::vector<Kavel__HistoryEntry> messages(entries.size());
    std::vector<Kavel__HistoryEntry *> pointers;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        Kavel__HistoryEntry &message = messages[i];
        kavel__history_entry__init(&message);
        message.vpn = entries[i].vpn;
        message.time = 1'700'000'000 - i;
        message.sender = entries[i].sender.data();
        message.revision = entries[i].revision.empty() ? nullptr : entries[i].revision.data();
        message.result = entries[i].result;
        message.outcome = entries[i].outcome.data();
        message.bytes = entries[i].bytes;
        message.has_undone = message.undone = entries[i].isUndone ? 1 : 0;
        if (entries[i].json) {
            encoded[i] = Encoded(*entries[i].json);
            message.has_message = 1;
            message.message = {encoded[i].bytes.size(), encoded[i].bytes.data()};
            message.bytes = encoded[i].bytes.size();
            message.has_pop = message.pop = encoded[i].isForPop ? 1 : 0;
        }
        pointers.push_back(&message);
    }
    return PackReply(0, [&](Kavel__Reply &reply) {
        reply.n_history = pointers.size();
        reply.history = pointers.data();
    });
}

} // namespace kavel::ctl

#endif

#include "packed_conf.h"

#include <utility>

#include "errors.h"

namespace kavel::ctl {

CpeConf UnpackCpe(const PackedConf &packed)
{
    CpeConf message(dnsmasq_conf__unpack(nullptr, packed.bytes.size(), packed.bytes.data()));
    return message ? std::move(message) : throw AgentError("the agent has sent bytes that are no CPE message");
}

PopConf UnpackPop(const PackedConf &packed)
{
    PopConf message(pop_dnsmasq_conf__unpack(nullptr, packed.bytes.size(), packed.bytes.data()));
    return message ? std::move(message) : throw AgentError("the agent has sent bytes that are no POP message");
}

std::optional<PackedConf> InForceIn(const Kavel__Reply &reply)
{
    if (reply.n_messages == 0) {
        return std::nullopt;
    }
    const Kavel__PackedMessage &message = *reply.messages[0];
    return PackedConf{{message.message.data, message.message.len}, message.pop != 0};
}

std::vector<std::uint8_t> WithOperation(const PackedConf &packed, std::uint32_t operation)
{
    const CpeConf message = UnpackCpe(packed);
    message->operation = operation;
    std::vector<std::uint8_t> bytes(dnsmasq_conf__get_packed_size(message.get()));
    dnsmasq_conf__pack(message.get(), bytes.data());
    return bytes;
}

} // namespace kavel::ctl

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

} // namespace kavel::ctl

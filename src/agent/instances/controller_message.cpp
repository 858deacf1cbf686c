#include "instances/controller_message.h"

#include <cstddef>
#include <cstdlib>
#include <utility>

#include "vqDnsmasqConf.h"

namespace kavel::agent {
namespace {

// Two bytes on the wire can be an empty element of a hundred bytes in memory. The largest message that can be applied
// takes a tenth of this.
constexpr std::size_t kUnpackedMax = std::size_t{256} * 1024 * 1024;
constexpr std::size_t kAllocationOverhead = 16;

void *AllocateWithin(void *budget, std::size_t size)
{
    auto &left = *static_cast<std::size_t *>(budget);
    if (size + kAllocationOverhead > left) {
        return nullptr;
    }
    left -= size + kAllocationOverhead;
    return std::malloc(size);
}

// The message is released later with the library's default allocator, which is free() as well.
void Release(void * /*budget*/, void *memory)
{
    std::free(memory);
}

std::optional<ControllerMessage> UnpackCpe(std::span<const std::uint8_t> bytes)
{
    ControllerMessage message;
    message.content = UnpackProtobuf(dnsmasq_conf__descriptor, bytes);
    if (!message.content) {
        return std::nullopt;
    }
    const auto *cpe = reinterpret_cast<const DnsmasqConf *>(message.content.get());
    message.pointer.DnsmasqPbCPE = cpe;
    message.vpn = cpe->has_vpnid != 0 ? cpe->vpnid : 0;
    message.enables = cpe->enable != 0;
    message.reloads = message.enables && cpe->operation == VQ_DNSMASQ_OP_RELOAD;
    message.isKept = cpe->has_persistentflag != 0 && cpe->persistentflag != 0;
    message.launches = message.enables && cpe->operation == VQ_DNSMASQ_OP_REBOOT;
    return message;
}

// A POP's instance is the box's, and it is always restarted.
std::optional<ControllerMessage> UnpackPop(std::span<const std::uint8_t> bytes)
{
    ControllerMessage message;
    message.content = UnpackProtobuf(pop_dnsmasq_conf__descriptor, bytes);
    if (!message.content) {
        return std::nullopt;
    }
    const auto *pop = reinterpret_cast<const PopDnsmasqConf *>(message.content.get());
    message.pointer.DnsmasqPbPOP = pop;
    message.enables = pop->enable != 0;
    message.isKept = pop->has_persistentflag != 0 && pop->persistentflag != 0;
    message.launches = message.enables;
    return message;
}

} // namespace

ProtobufMessage UnpackProtobuf(const ProtobufCMessageDescriptor &type, std::span<const std::uint8_t> bytes)
{
    std::size_t budget = kUnpackedMax;
    ProtobufCAllocator allocator{AllocateWithin, Release, &budget};
    return ProtobufMessage(protobuf_c_message_unpack(&type, &allocator, bytes.size(), bytes.data()));
}

std::optional<ControllerMessage> UnpackControllerMessage(Platform platform, std::span<const std::uint8_t> bytes)
{
    return platform == Platform::kCpe ? UnpackCpe(bytes) : UnpackPop(bytes);
}

std::vector<std::uint8_t> WithStart(Platform platform, std::vector<std::uint8_t> bytes)
{
    const auto message = UnpackControllerMessage(platform, bytes);
    if (!message || !message->reloads) {
        return bytes;
    }
    DnsmasqConf changed = *message->pointer.DnsmasqPbCPE; // what it points at stays the message's
    changed.operation = VQ_DNSMASQ_OP_REBOOT;
    std::vector<std::uint8_t> packed(dnsmasq_conf__get_packed_size(&changed));
    dnsmasq_conf__pack(&changed, packed.data());
    return packed;
}

} // namespace kavel::agent

#include "supervision/content.h"

#include <cstring>
#include <memory>
#include <span>
#include <stdexcept>
#include <utility>

#include "instances/controller_message.h"
#include "instances/record_message.h"
#include "log.h"
#include "services/message_history.h"

namespace kavel::agent {
namespace {

std::span<const std::uint8_t> BytesOf(const std::string &text)
{
    return {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()};
}

// The module's lines about what it has taken already once are kept out of the log.
void FillFromMessage(Host &host, const ModuleFunctions &module, VQ_DNSMASQ_CONF &record, const std::string &bytes)
{
    const auto message = UnpackControllerMessage(host.config.platform, BytesOf(bytes));
    if (!message) {
        throw std::runtime_error("what is in force cannot be unpacked");
    }
    const ModuleSilence silence(host);
    host.moduleErrors.Clear();
    const std::int32_t result = module.translate(&message->pointer, &record);
    if (result < 0) {
        throw std::runtime_error(host.moduleErrors.Cause(result).value_or(std::strerror(-result)));
    }
}

} // namespace

RecordNode RecordOf(Host &host, const ModuleFunctions &module, std::uint32_t vpnId, const InForceContent &content)
{
    RecordNode node = MapZeroed<VQ_DnsmasqConfNode>();
    if (content.isMessage) {
        FillFromMessage(host, module, node->Dnsmasq, content.bytes);
    } else if (auto problem = host.store.Fill(node->Dnsmasq, vpnId, content.bytes)) {
        throw std::runtime_error(*problem);
    }
    return node;
}

std::string StoredTextOf(Host &host, const ModuleFunctions &module, std::uint32_t vpnId, const InForceContent &content)
{
    if (!content.isMessage) {
        return content.bytes;
    }
    const RecordNode node = RecordOf(host, module, vpnId, content);
    const auto convert = host.conversions.DnsmasqConfToStr;
    const auto release = host.conversions.DataTransJsonStrFree;
    const std::unique_ptr<char, void (*)(char *)> text(convert != nullptr ? convert(&node->Dnsmasq) : nullptr, release);
    if (!text) {
        throw std::runtime_error("it cannot be converted for the store");
    }
    return text.get();
}

std::optional<std::string> RevisionOfStoredText(Host &host, const ModuleFunctions &module, std::uint32_t vpnId,
                                                const std::string &text)
{
    try {
        UndoneEntries undone;
        for (const HistoryEntry &entry : host.store.ReadHistory(vpnId)) {
            if (undone.Contains(entry) || entry.result < 0 || !entry.message) {
                continue;
            }
            const InForceContent content{true, std::string(entry.message->begin(), entry.message->end())};
            if (StoredTextOf(host, module, vpnId, content) == text) {
                return entry.revision;
            }
        }
    } catch (const std::exception &failure) {
        Log(LogLevel::kDebug, "vpn %u: the revision of its stored record is not known: %s", vpnId, failure.what());
    }
    return std::nullopt;
}

std::vector<std::uint8_t> MessageOfContent(Host &host, const ModuleFunctions &module, std::uint32_t vpnId,
                                           const InForceContent &content)
{
    if (content.isMessage) {
        return {content.bytes.begin(), content.bytes.end()};
    }
    const RecordNode node = RecordOf(host, module, vpnId, content);
    node->Dnsmasq.Op = VQ_DNSMASQ_OP_REBOOT;
    node->Dnsmasq.PersistentFlag = TRUE;
    return MessageOfRecord(host.config.platform, node->Dnsmasq);
}

std::optional<std::string> ApplyRecord(Host &host, const ModuleFunctions &module, std::uint32_t vpnId, RecordNode node,
                                       VQ_DNSMASQ_OPERATION operation)
{
    node->Dnsmasq.Op = operation;
    host.store.Offer(std::move(node));
    host.namespaces.BeginRequest();
    host.moduleErrors.Clear();
    const VpnScope scope(host, vpnId);
    (void)module.recover(); // always succeeds
    return host.moduleErrors.First();
}

} // namespace kavel::agent

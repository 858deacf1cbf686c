// The content of what is in force, as the module takes it.
#ifndef KAVEL_AGENT_CONTENT_H
#define KAVEL_AGENT_CONTENT_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/zeroed_pages.h"
#include "instances/in_force.h"
#include "instances/module.h"
#include "services/host.h"
#include "vqStore.h"

namespace kavel::agent {

using RecordNode = ZeroedPages<VQ_DnsmasqConfNode>;

// The record of a VPN's content. Throws std::runtime_error, whose text says why, when the content cannot be read.
[[nodiscard]] RecordNode RecordOf(Host &host, const ModuleFunctions &module, std::uint32_t vpnId,
                                  const InForceContent &content);

// The text that the store keeps for a content. Throws std::runtime_error.
[[nodiscard]] std::string StoredTextOf(Host &host, const ModuleFunctions &module, std::uint32_t vpnId,
                                       const InForceContent &content);

// The revision of the newest message in the VPN's history that was applied and that the store keeps as this text;
// nothing when there is none, it had no revision, or that cannot be told.
[[nodiscard]] std::optional<std::string> RevisionOfStoredText(Host &host, const ModuleFunctions &module,
                                                              std::uint32_t vpnId, const std::string &text);

// A content as a packed message. That of a stored record asks for a restart and to be stored, as a message that had led
// to the record would have to. Throws std::runtime_error.
[[nodiscard]] std::vector<std::uint8_t> MessageOfContent(Host &host, const ModuleFunctions &module, std::uint32_t vpnId,
                                                         const InForceContent &content);

// Applies a record through the module, as it applies stored records: its files, then routes, instance and rule, or
// their removal. The operation of the record is `operation`. Returns the module's first message about a failure;
// nothing when there was none.
std::optional<std::string> ApplyRecord(Host &host, const ModuleFunctions &module, std::uint32_t vpnId, RecordNode node,
                                       VQ_DNSMASQ_OPERATION operation);

} // namespace kavel::agent

#endif

// Checks of a CPE message that the module does not make.
#ifndef KAVEL_AGENT_MESSAGE_CHECKS_H
#define KAVEL_AGENT_MESSAGE_CHECKS_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "advanced_dns.pb-c.h"
#include "instances/module.h"
#include "services/host.h"

namespace kavel::agent {

// Why a message must not reach the module; nothing when it may. The module writes the interface name of a server into
// an instance's configuration without a check: a name with a line break would add options of the sender's choice. Names
// with characters that no interface name can have are objected to.
[[nodiscard]] std::optional<std::string> InterfaceNameObjection(const DnsmasqConf &message);

// Why dnsmasq 2.90 would not start with the files of this message: the field and the reason. The message would end the
// instance, and the next one would not come up. Nothing when there is no reason.
[[nodiscard]] std::optional<std::string> StartObjection(const DnsmasqConf &message, const ModuleFunctions &module);

// What has no effect although the message can be applied, a line for each field: forwards that the module skips, and
// hosts that dnsmasq does not serve. After eight lines one that counts the others.
[[nodiscard]] std::vector<std::string> IneffectiveFields(const DnsmasqConf &message, const ModuleFunctions &module);

// Interfaces of servers that do not exist in the VPN's namespace, a line for each field: a query to such a server does
// not leave the box.
[[nodiscard]] std::vector<std::string> MissingInterfaces(const DnsmasqConf &message, Host &host, std::uint32_t vpnId);

// The field of the message from which the module wrote a line of one of the instance's files; nothing when it is not
// known. `file` is the last part of the file's path; lines count from 1.
[[nodiscard]] std::optional<std::string> FieldOfLine(const DnsmasqConf &message, const ModuleFunctions &module,
                                                     std::string_view file, std::size_t line);

// The field that dnsmasq's message "... at line 3 of /path/file" is about; nothing when it names no line.
[[nodiscard]] std::optional<std::string> FieldOfReason(const DnsmasqConf &message, const ModuleFunctions &module,
                                                       std::string_view reason);

} // namespace kavel::agent

#endif

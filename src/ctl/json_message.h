// Controller messages as JSON.
#ifndef KAVEL_CTL_JSON_MESSAGE_H
#define KAVEL_CTL_JSON_MESSAGE_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "json_reader.h"
#include "packed_conf.h"

namespace kavel::ctl {

struct EncodedMessage {
    std::vector<std::uint8_t> bytes; // a packed DnsmasqConf, or PopDnsmasqConf for a POP
    std::string summary;             // of its content, for people
    bool isForPop = false;           // which of the two it is; not known of bytes that were not JSON
};

// Whom a CPE message is meant for. A POP message is always for the box itself.
enum class MessageFor {
    kVpn,      // the message must have the key `vpnid`; its 0 is the box itself
    kBox,      // the key is absent, or 0
    kNamedVpn, // like kVpn, for a program that has no option --box of this meaning
};

// Encodes a message. The keys are the field names of the message; addresses are strings; `operation` may be a name. The
// message is one for a POP if it has a key that only a POP's message has, and no key that only a CPE's message has;
// otherwise it is one for a CPE. Throws InputError with the path of the first bad field. Names, lengths and counts are
// not checked here: the module checks them against its limits.
EncodedMessage EncodeJson(const std::string &text, MessageFor target);

// The same. All errors, not only the first, are given to `errors`; if there are any, the result is nothing.
std::optional<EncodedMessage> EncodeJson(const std::string &text, MessageFor target, const ErrorSink &errors);

// The message as JSON that EncodeJson() encodes to the same bytes. Left out is what JSON cannot represent: IPv6
// addresses that have not 16 bytes, and required texts that are absent. Throws AgentError if the bytes are not a
// message.
JsonPtr MessageJson(const PackedConf &packed);

} // namespace kavel::ctl

#endif

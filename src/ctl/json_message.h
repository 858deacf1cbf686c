// Controller messages as JSON.
#ifndef KAVEL_CTL_JSON_MESSAGE_H
#define KAVEL_CTL_JSON_MESSAGE_H

#include <cstdint>
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

// Encodes a message. The keys are the field names of the message; addresses are strings; `operation` may be a name. The
// message is one for a POP if it has a key that only a POP's message has, and no key that only a CPE's message has;
// otherwise it is one for a CPE. Throws InputError with the path of the first bad field. Names, lengths and counts are
// not checked here: the module checks them against its limits.
EncodedMessage EncodeJson(const std::string &text);

// The message as JSON that EncodeJson() encodes to the same bytes. Left out is what JSON cannot represent: IPv6
// addresses that have not 16 bytes, and required texts that are absent. Throws AgentError if the bytes are not a
// message.
JsonPtr MessageJson(const PackedConf &packed);

} // namespace kavel::ctl

#endif

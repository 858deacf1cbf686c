// Controller messages as JSON.
#ifndef KAVEL_CTL_JSON_MESSAGE_H
#define KAVEL_CTL_JSON_MESSAGE_H

#include <cstdint>
#include <string>
#include <vector>

namespace kavel::ctl {

struct EncodedMessage {
    std::vector<std::uint8_t> bytes; // a packed DnsmasqConf, or PopDnsmasqConf for a POP
    std::string summary;             // of its content, for people
};

// Encodes a message. The keys are the field names of the message; addresses are strings; `operation` may be a name. The
// message is one for a POP if it has a key that only a POP's message has, and no key that only a CPE's message has;
// otherwise it is one for a CPE. Throws InputError with the path of the first bad field. Names, lengths and counts are
// not checked here: the module checks them against its limits.
EncodedMessage EncodeJson(const std::string &text);

} // namespace kavel::ctl

#endif

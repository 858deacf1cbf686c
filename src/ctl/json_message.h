// Controller messages written as JSON.
#ifndef KAVEL_CTL_JSON_MESSAGE_H
#define KAVEL_CTL_JSON_MESSAGE_H

#include <cstdint>
#include <string>
#include <vector>

namespace kavel::ctl {

struct EncodedMessage {
    std::vector<std::uint8_t> bytes; // a packed DnsmasqConf, or PopDnsmasqConf for a POP
    std::string summary;             // what is in it, for a person
};

// Encodes a message whose keys are the message's own field names; addresses are texts, `operation` may be a name. It is
// one for a POP when it has a key that only a POP's message knows and none that only a CPE's does. Throws InputError
// with the path of the first bad field. Names, lengths and counts are left to the module, which alone knows their
// limits.
EncodedMessage EncodeJson(const std::string &text);

} // namespace kavel::ctl

#endif

// Asks the real dnsmasq whether it takes a configuration.
#ifndef FUZZ_DNSMASQ_CHECK_H
#define FUZZ_DNSMASQ_CHECK_H

#include <string>

namespace fuzz {

// Ends the process when it does not.
void RequireDnsmasqTakes(const std::string &Configuration);

} // namespace fuzz

#endif

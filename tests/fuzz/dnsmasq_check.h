// Checks a configuration with the real dnsmasq.
#ifndef FUZZ_DNSMASQ_CHECK_H
#define FUZZ_DNSMASQ_CHECK_H

#include <string>

namespace fuzz {

// Runs `dnsmasq --test`; aborts the process if dnsmasq refuses the configuration.
void RequireDnsmasqTakes(const std::string &Configuration);

} // namespace fuzz

#endif

// The module's rule for domain names, told a second time and without a pattern.
#ifndef FUZZ_DOMAIN_MATCHER_H
#define FUZZ_DOMAIN_MATCHER_H

#include <string_view>

namespace fuzz {

// Runs of 1 to 63 ASCII letters and digits, with one separator between two of them; the last separator is a dot, what
// follows it is 2 letters at least, and 254 characters are the most.
bool IsDomain(std::string_view Name);

} // namespace fuzz

#endif

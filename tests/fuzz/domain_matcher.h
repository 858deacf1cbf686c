// A second implementation of the module's rule for domain names, without a regular expression.
#ifndef FUZZ_DOMAIN_MATCHER_H
#define FUZZ_DOMAIN_MATCHER_H

#include <string_view>

namespace fuzz {

// Runs of 1 to 63 ASCII letters and digits, with one separator between two runs. The last separator is a dot, followed
// by at least 2 letters. At most 254 characters.
bool IsDomain(std::string_view Name);

} // namespace fuzz

#endif

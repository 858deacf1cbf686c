// A cache in front of the C library's regcomp(). The module compiles the same pattern for every domain name, which
// takes much longer than the rest of it. The fake host counts before this cache that the module releases every pattern.
#include "base/pattern_cache.h"

namespace {

constexpr std::size_t PatternsMax = 1024; // the test library's patterns are among them

kavel::agent::PatternCache &Known()
{
    static kavel::agent::PatternCache Cache(PatternsMax);
    return Cache;
}

} // namespace

// The C library's names of the parameters are reserved.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" int regcomp(regex_t *Pattern, const char *Text, int Flags)
{
    return Known().Compile(Pattern, Text, Flags);
}

extern "C" void regfree(regex_t *Pattern)
{
    Known().Release(Pattern);
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

// Regular expressions, compiled once. The module compiles the same pattern for every domain name of a message, which
// takes most of the time of that message, and does not free it for a name with a blank. It calls the C library by name,
// so it gets these functions instead; every other library of the process gets them too.
#include <regex.h>

#include "base/pattern_cache.h"
#include "services/host.h"

using namespace kavel::agent;

// The C library's names of the parameters are reserved.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" {

int regcomp(regex_t *pattern, const char *text, int flags)
{
    Host *host = Host::CurrentOrNull();
    return host != nullptr ? host->patterns.Compile(pattern, text, flags) : CompileWithLibrary(pattern, text, flags);
}

void regfree(regex_t *pattern)
{
    Host *host = Host::CurrentOrNull();
    host != nullptr ? host->patterns.Release(pattern) : ReleaseWithLibrary(pattern);
}
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

#include "base/pattern_cache.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstring>
#include <new>

namespace kavel::agent {
namespace {

template <typename Function>
Function *LibraryFunction(const char *name)
{
    return reinterpret_cast<Function *>(::dlsym(RTLD_NEXT, name));
}

} // namespace

int CompileWithLibrary(regex_t *pattern, const char *text, int flags)
{
    return LibraryFunction<int(regex_t *, const char *, int)>("regcomp")(pattern, text, flags);
}

void ReleaseWithLibrary(regex_t *pattern)
{
    LibraryFunction<void(regex_t *)>("regfree")(pattern);
}

PatternCache::~PatternCache()
{
    for (Kept &kept : kept_) {
        ReleaseWithLibrary(&kept.pattern);
    }
}

// A copy of the structure is as good as the original: matching reads the structure, and what it writes is behind the
// pointers, which all copies share.
int PatternCache::Compile(regex_t *pattern, const char *text, int flags)
{
    const auto isSame = [&](const Kept &kept) { return kept.flags == flags && kept.text == text; };
    const auto found = std::ranges::find_if(kept_, isSame);
    if (found != kept_.end()) {
        *pattern = found->pattern;
        return 0;
    }
    const int result = CompileWithLibrary(pattern, text, flags);
    if (result == 0) {
        Keep(*pattern, text, flags);
    }
    return result;
}

void PatternCache::Keep(const regex_t &pattern, const char *text, int flags)
{
    if (kept_.size() >= patternsMax_ || ::strnlen(text, kTextMax + 1) > kTextMax) {
        return;
    }
    try {
        kept_.push_back({text, flags, pattern});
    } catch (const std::bad_alloc &) {
        return; // the caller owns it, as if there were no cache
    }
}

void PatternCache::Release(regex_t *pattern)
{
    const auto shares = [&](const Kept &kept) { return kept.pattern.buffer == pattern->buffer; };
    if (pattern->buffer != nullptr && std::ranges::any_of(kept_, shares)) {
        *pattern = {};
    } else {
        ReleaseWithLibrary(pattern);
    }
}

} // namespace kavel::agent

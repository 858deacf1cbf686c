// Keeps compiled regular expressions.
#ifndef KAVEL_AGENT_PATTERN_CACHE_H
#define KAVEL_AGENT_PATTERN_CACHE_H

#include <regex.h>

#include <cstddef>
#include <string>
#include <vector>

namespace kavel::agent {

// Stands between a caller of regcomp() and regfree() and the C library. A caller that compiles the same pattern again
// and again gets the one that was compiled first; the C library does all the matching. A caller that forgets to free a
// kept pattern leaks nothing.
//
// The first `patternsMax` patterns with at most 1 KiB of text are kept, until this object is destroyed; others are
// compiled each time. Nothing is evicted: a kept pattern may be in use. Not for concurrent threads; the locale must not
// change.
class PatternCache {
  public:
    static constexpr std::size_t kPatternsMax = 16;
    static constexpr std::size_t kTextMax = 1024;

    explicit PatternCache(std::size_t patternsMax = kPatternsMax) : patternsMax_(patternsMax) {}
    PatternCache(const PatternCache &) = delete;
    PatternCache &operator=(const PatternCache &) = delete;
    ~PatternCache();

    // As regcomp(). `pattern` shares what is kept: it may be matched with, and passed to Release().
    int Compile(regex_t *pattern, const char *text, int flags);

    // As regfree(), for every pattern that was compiled, kept or not.
    void Release(regex_t *pattern);

    [[nodiscard]] std::size_t Size() const { return kept_.size(); }

  private:
    struct Kept {
        std::string text;
        int flags;
        regex_t pattern;
    };

    void Keep(const regex_t &pattern, const char *text, int flags);

    std::size_t patternsMax_;
    std::vector<Kept> kept_;
};

// The functions of the C library: the names regcomp and regfree are the agent's own.
int CompileWithLibrary(regex_t *pattern, const char *text, int flags);
void ReleaseWithLibrary(regex_t *pattern);

} // namespace kavel::agent

#endif

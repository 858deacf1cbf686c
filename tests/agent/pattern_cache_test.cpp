// Compiled patterns: they match as those of the C library do, and what is kept is bounded.
#include "base/pattern_cache.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "base/procfs.h"

namespace kavel::agent {
namespace {

constexpr const char *kDomain = "^[a-zA-Z0-9]{1,63}([\\.\\-][a-zA-Z0-9]{1,63})*\\.[a-zA-Z]{2,63}$";

constexpr std::array<const char *, 16> kPatterns{
    kDomain,  "",   "a*", "(a|ab)(c|bcd)(d*)", "[[:alpha:]]+", "^a\nb$", "\\(x\\)\\1", "[a-c", "(",
    "a{2,1}", "*a", "\\", "[[:no:]]",          "x{70000}",     ")",      "[^\n]*"};
constexpr std::array<int, 9> kFlags{0,
                                    REG_EXTENDED,
                                    REG_EXTENDED | REG_ICASE,
                                    REG_EXTENDED | REG_NOSUB,
                                    REG_EXTENDED | REG_NEWLINE,
                                    REG_ICASE | REG_NEWLINE,
                                    REG_NOSUB,
                                    REG_EXTENDED | REG_ICASE | REG_NOSUB | REG_NEWLINE,
                                    1 << 12};
constexpr std::array<const char *, 9> kTexts{"",     "example.com", "ABCD",       "abcd",       "xx",
                                             "a\nb", "a.b-c.org",   "with a b.c", "\xC3\xA4.de"};

struct Matched {
    int result;
    std::vector<std::pair<regoff_t, regoff_t>> groups;
    bool operator==(const Matched &) const = default;
};

Matched Match(const regex_t &pattern, const char *text, int flags)
{
    std::array<regmatch_t, 5> groups{};
    Matched matched{::regexec(&pattern, text, groups.size(), groups.data(), flags), {}};
    for (const regmatch_t &group : groups) {
        matched.groups.emplace_back(group.rm_so, group.rm_eo);
    }
    return matched;
}

std::string ErrorText(int result, const regex_t &pattern)
{
    std::array<char, 128> text{};
    ::regerror(result, &pattern, text.data(), text.size());
    return text.data();
}

// Compiles with the cache and with the C library, and expects that nothing differs.
void ExpectSame(PatternCache &cache, const char *text, int flags)
{
    SCOPED_TRACE(std::string(text) + " with flags " + std::to_string(flags));
    regex_t expected{};
    regex_t pattern{};
    const int expectedResult = CompileWithLibrary(&expected, text, flags);
    const int result = cache.Compile(&pattern, text, flags);
    ASSERT_EQ(result, expectedResult);
    if (result != 0) {
        EXPECT_EQ(ErrorText(result, pattern), ErrorText(expectedResult, expected));
        return;
    }
    EXPECT_EQ(pattern.re_nsub, expected.re_nsub);
    for (const char *subject : kTexts) {
        for (const int matchFlags : {0, REG_NOTBOL, REG_NOTEOL}) {
            EXPECT_EQ(Match(pattern, subject, matchFlags), Match(expected, subject, matchFlags)) << subject;
        }
    }
    cache.Release(&pattern);
    ReleaseWithLibrary(&expected);
}

TEST(PatternCache, EveryPatternAndFlagGivesTheResultOfTheCLibrary)
{
    PatternCache cache(kPatterns.size() * kFlags.size());
    for (int round = 0; round < 3; ++round) {
        for (const char *text : kPatterns) {
            for (const int flags : kFlags) {
                ExpectSame(cache, text, flags);
            }
        }
    }
}

TEST(PatternCache, ASecondCompilationIsTheFirstOne)
{
    PatternCache cache;
    regex_t first{};
    regex_t second{};
    ASSERT_EQ(cache.Compile(&first, kDomain, REG_EXTENDED), 0);
    cache.Release(&first);
    EXPECT_EQ(first.buffer, nullptr);
    ASSERT_EQ(cache.Compile(&second, kDomain, REG_EXTENDED), 0);
    EXPECT_EQ(::regexec(&second, "example.com", 0, nullptr, 0), 0);
    EXPECT_EQ(cache.Size(), 1U);
}

TEST(PatternCache, FailedCompilationsAreNotKept)
{
    PatternCache cache;
    regex_t pattern{};
    EXPECT_EQ(cache.Compile(&pattern, "(", REG_EXTENDED), REG_EPAREN);
    EXPECT_EQ(cache.Size(), 0U);
}

TEST(PatternCache, KeepsNoMoreThanItsLimit)
{
    PatternCache cache;
    for (int i = 0; i < 100; ++i) {
        ExpectSame(cache, ("a" + std::to_string(i)).c_str(), REG_EXTENDED);
    }
    EXPECT_EQ(cache.Size(), PatternCache::kPatternsMax);
}

TEST(PatternCache, LongPatternsAreNotKept)
{
    PatternCache cache;
    ExpectSame(cache, std::string(PatternCache::kTextMax + 1, 'a').c_str(), REG_EXTENDED);
    EXPECT_EQ(cache.Size(), 0U);
    ExpectSame(cache, std::string(PatternCache::kTextMax, 'a').c_str(), REG_EXTENDED);
    EXPECT_EQ(cache.Size(), 1U);
}

TEST(PatternCache, APatternThatWasReleasedTwiceIsHarmless)
{
    PatternCache cache;
    regex_t pattern{};
    ASSERT_EQ(cache.Compile(&pattern, kDomain, REG_EXTENDED), 0);
    cache.Release(&pattern);
    cache.Release(&pattern);
    ExpectSame(cache, kDomain, REG_EXTENDED);
}

// The module does not free the pattern of a name with a blank. Compiled anew, each would take about 200 KiB.
TEST(PatternCache, PatternsThatAreNeverReleasedCostNothing)
{
    constexpr std::uint64_t kNoise = std::uint64_t{16} << 20U;
    PatternCache cache;
    regex_t pattern{};
    ASSERT_EQ(cache.Compile(&pattern, kDomain, REG_EXTENDED), 0);
    const std::uint64_t before = InspectProcess(::getpid()).memoryBytes;
    for (int i = 0; i < 8192; ++i) {
        ASSERT_EQ(cache.Compile(&pattern, kDomain, REG_EXTENDED), 0);
    }
    EXPECT_LT(InspectProcess(::getpid()).memoryBytes, before + kNoise);
}

// What the C library keeps of its matches does not grow with the number of different names.
// KAVEL_NAMES sets the number of names; ten million take a minute and a half.
TEST(PatternCache, MatchesOfManyNamesTakeBoundedMemory)
{
    const char *wanted = std::getenv("KAVEL_NAMES");
    const long names = wanted != nullptr ? std::strtol(wanted, nullptr, 10) : 50000;
    ASSERT_GT(names, 0);
    constexpr std::uint64_t kBound = std::uint64_t{32} << 20U;
    PatternCache cache;
    regex_t pattern{};
    ASSERT_EQ(cache.Compile(&pattern, kDomain, REG_EXTENDED), 0);
    std::minstd_rand random(1); // the same names in each run
    const std::uint64_t before = InspectProcess(::getpid()).memoryBytes;
    for (long i = 0; i < names; ++i) {
        std::string name;
        for (std::size_t length = random() % 200; name.size() < length;) {
            name += "abcXYZ019.-"[random() % 11];
        }
        (void)::regexec(&pattern, name.c_str(), 0, nullptr, 0);
    }
    EXPECT_LT(InspectProcess(::getpid()).memoryBytes, before + kBound);
}

} // namespace
} // namespace kavel::agent

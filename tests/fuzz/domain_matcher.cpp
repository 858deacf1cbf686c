#include "domain_matcher.h"

#include <cstddef>

namespace fuzz {

namespace {

bool IsLetter(char Each)
{
    return (Each >= 'a' && Each <= 'z') || (Each >= 'A' && Each <= 'Z');
}

bool IsDigit(char Each)
{
    return Each >= '0' && Each <= '9';
}

// In a bracket expression of POSIX a backslash is an ordinary character, and so it is a separator as well.
bool IsSeparator(char Each)
{
    return Each == '.' || Each == '-' || Each == '\\';
}

// The current run of letters and digits.
struct Run {
    char Before = '\0'; // the separator before it
    size_t Length = 0;
    bool OnlyLetters = true;
};

} // namespace

bool IsDomain(std::string_view Name)
{
    constexpr size_t LongestRun = 63;
    constexpr size_t LongestName = 254;
    Run Current;
    for (const char Each : Name) {
        if (IsSeparator(Each) && Current.Length > 0) {
            Current = {Each};
        } else if ((IsLetter(Each) || IsDigit(Each)) && Current.Length < LongestRun) {
            ++Current.Length;
            Current.OnlyLetters = Current.OnlyLetters && IsLetter(Each);
        } else {
            return false;
        }
    }
    return Current.Before == '.' && Current.Length >= 2 && Current.OnlyLetters && Name.size() <= LongestName;
}

} // namespace fuzz

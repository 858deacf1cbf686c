// The C library's pattern compiler, which remembers what it compiled. A target asks for the same pattern again and
// again, and compiling it takes many times as long as everything that is tested. What the module must keep to, a
// release for each compilation, is counted by the fake host before it comes here.
#include <dlfcn.h>
#include <map>
#include <regex.h>
#include <string>
#include <utility>

#include "fuzz.h"

namespace {

// The function of the C library that stands behind the one here.
template <typename Function>
Function *Real(const char *Name)
{
    void *Found = dlsym(RTLD_NEXT, Name);
    fuzz::Require(Found != nullptr, "a function of the C library is missing");
    return reinterpret_cast<Function *>(Found);
}

class Compiled {
  public:
    Compiled() = default;
    ~Compiled()
    {
        for (auto &[Key, Pattern] : m_Patterns) {
            m_Free(&Pattern);
        }
    }
    Compiled(const Compiled &) = delete;
    Compiled &operator=(const Compiled &) = delete;
    Compiled(Compiled &&) = delete;
    Compiled &operator=(Compiled &&) = delete;

    int Get(regex_t *Pattern, const char *Text, int Flags)
    {
        const auto Known = m_Patterns.find({Text, Flags});
        if (Known != m_Patterns.end()) {
            *Pattern = Known->second;
            return 0;
        }
        const int Result = m_Compile(Pattern, Text, Flags);
        if (Result == 0) {
            m_Patterns.emplace(std::pair(Text, Flags), *Pattern);
        }
        return Result;
    }

  private:
    int (*m_Compile)(regex_t *, const char *, int) = Real<int(regex_t *, const char *, int)>("regcomp");
    void (*m_Free)(regex_t *) = Real<void(regex_t *)>("regfree");
    std::map<std::pair<std::string, int>, regex_t> m_Patterns;
};

} // namespace

// The C library's names of the parameters are reserved.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" int regcomp(regex_t *Pattern, const char *Text, int Flags)
{
    static Compiled Known;
    return Known.Get(Pattern, Text, Flags);
}

// A remembered pattern is shared and stays.
extern "C" void regfree(regex_t *Pattern)
{
    *Pattern = {};
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

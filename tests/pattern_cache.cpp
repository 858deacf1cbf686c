// A cache in front of the C library's regcomp(). The module compiles the same pattern for every domain name, which
// takes much longer than the rest of it. The fake host counts before this cache that the module releases every pattern.
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <map>
#include <regex.h>
#include <string>
#include <utility>

namespace {

// The function of the C library with this name.
template <typename Function>
Function *Real(const char *Name)
{
    void *Found = dlsym(RTLD_NEXT, Name);
    if (Found == nullptr) {
        static_cast<void>(std::fprintf(stderr, "the C library has no %s\n", Name));
        std::abort();
    }
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

// A cached pattern is shared, and is not released.
extern "C" void regfree(regex_t *Pattern)
{
    *Pattern = {};
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

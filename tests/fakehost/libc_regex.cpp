#include <algorithm>
#include <cstring>

#include "host.h"

using fakehost::EntryKind;
using fakehost::ErrnoKept;
using fakehost::Host;
using fakehost::Quoted;

extern "C" {
int __real_regcomp(regex_t *Pattern, const char *Text, int Flags);
int __real_regexec(const regex_t *Pattern, const char *Text, size_t Count, regmatch_t *Matches, int Flags);
void __real_regfree(regex_t *Pattern);
int __wrap_regcomp(regex_t *Pattern, const char *Text, int Flags);
int __wrap_regexec(const regex_t *Pattern, const char *Text, size_t Count, regmatch_t *Matches, int Flags);
void __wrap_regfree(regex_t *Pattern);
}

namespace fakehost {

Patterns::~Patterns()
{
    for (regex_t &Each : m_Held) {
        __real_regfree(&Each);
    }
}

int Patterns::Compile(regex_t *Pattern, const char *Text, int Flags)
{
    const int Result = __real_regcomp(Pattern, Text, Flags);
    ++m_Compiled;
    if (Result == 0) {
        m_Held.push_back(*Pattern);
    }
    return Result;
}

void Patterns::Release(regex_t *Pattern)
{
    const auto Same = [Pattern](const regex_t &Each) { return Each.buffer == Pattern->buffer; };
    const auto Found = std::find_if(m_Held.begin(), m_Held.end(), Same);
    if (Found == m_Held.end()) {
        m_Host.Violation("a pattern released that is not compiled, or not any more");
        return;
    }
    m_Held.erase(Found);
    __real_regfree(Pattern);
}

void Patterns::ReportLeaks()
{
    if (m_Held.size() != m_Expected) {
        m_Host.Violation("patterns never released: " + std::to_string(m_Held.size()) + " instead of " +
                         std::to_string(m_Expected));
    }
}

} // namespace fakehost

// Without a current host these call the real functions, because the test framework matches patterns, too.

int __wrap_regcomp(regex_t *Pattern, const char *Text, int Flags)
{
    const ErrnoKept Kept;
    Host *Here = Host::CurrentOrNull();
    if (Here == nullptr) {
        return __real_regcomp(Pattern, Text, Flags);
    }
    Here->Note(EntryKind::Text, "regcomp", Quoted{Text}, Flags);
    if (Here->Failures.NextNamed("regcomp").has_value()) {
        *Pattern = {};
        return REG_ESPACE;
    }
    return Here->Regex.Compile(Pattern, Text, Flags);
}

int __wrap_regexec(const regex_t *Pattern, const char *Text, size_t Count, regmatch_t *Matches, int Flags)
{
    if (Host *Here = Host::CurrentOrNull(); Here != nullptr) {
        Here->Note(EntryKind::Text, "regexec", Quoted{Text}, Count, Flags);
    }
    return Pattern->buffer == nullptr ? REG_NOMATCH : __real_regexec(Pattern, Text, Count, Matches, Flags);
}

void __wrap_regfree(regex_t *Pattern)
{
    const ErrnoKept Kept;
    Host *Here = Host::CurrentOrNull();
    if (Here == nullptr) {
        __real_regfree(Pattern);
        return;
    }
    Here->Note(EntryKind::Text, "regfree");
    if (Pattern->buffer != nullptr) {
        Here->Regex.Release(Pattern);
    }
}

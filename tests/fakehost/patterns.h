// Compiled patterns: which ones the module has not released.
#ifndef FAKEHOST_PATTERNS_H
#define FAKEHOST_PATTERNS_H

#include <cstddef>
#include <regex.h>
#include <string>
#include <vector>

namespace fakehost {

class Host;

class Patterns {
  public:
    explicit Patterns(Host &Owner) : m_Host(Owner) {}
    ~Patterns();
    Patterns(const Patterns &) = delete;
    Patterns &operator=(const Patterns &) = delete;
    Patterns(Patterns &&) = delete;
    Patterns &operator=(Patterns &&) = delete;

    int Compile(regex_t *Pattern, const char *Text, int Flags);
    void Release(regex_t *Pattern);

    [[nodiscard]] std::size_t Compiled() const { return m_Compiled; }
    [[nodiscard]] std::size_t Unreleased() const { return m_Held.size(); }
    // The module leaks on one path, which is known and kept: it refuses a name with a blank after it has compiled the
    // pattern, and does not release the pattern. A test that takes this path says how often. The host frees these
    // patterns at its end, so that leak sanitizers do not report them.
    void ExpectUnreleased(std::size_t Count) { m_Expected = Count; }
    void ReportLeaks();

  private:
    Host &m_Host;
    std::vector<regex_t> m_Held;
    std::size_t m_Compiled = 0;
    std::size_t m_Expected = 0;
};

} // namespace fakehost

#endif

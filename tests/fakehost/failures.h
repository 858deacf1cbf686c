// Which host calls fail, and how.
#ifndef FAKEHOST_FAILURES_H
#define FAKEHOST_FAILURES_H

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace fakehost {

// Errors are negated errno values, whatever the service: an allocation or a list then is null, a C library call fails
// with that errno, a text service reports that the text did not fit.
//
// Counted calls are all that can fail, in order, apart from logging (it has its own switches in LogBook) and two that
// are made to fail by name only: the pattern compiler, whose result the module does not look at, and the reading of a
// JSON number, which is a matter of content.
class Failures {
  public:
    // The counted call number `Nth`, from 1, fails.
    void FailNth(std::size_t Nth, int Error) { m_Nth = {Nth, Nth, Error}; }
    // That one and all after it fail.
    void FailFrom(std::size_t Nth, int Error) { m_Nth = {Nth, SIZE_MAX, Error}; }
    // Every call of the service fails.
    void Fail(const std::string &Service, int Error) { m_Named[Service].push_back({1, SIZE_MAX, Error}); }
    // Call number `Nth` of the service, from 1 and counted since the host was made, fails.
    void Fail(const std::string &Service, int Error, std::size_t Nth) { m_Named[Service].push_back({Nth, Nth, Error}); }
    void Clear();

    [[nodiscard]] std::size_t CountedCalls() const { return m_Calls; }

    // How often the service was called so far.
    [[nodiscard]] std::size_t CallsOf(const std::string &Service) const;

    // The error with which the call that is being made has to fail.
    std::optional<int> NextCounted(const std::string &Service);
    std::optional<int> NextNamed(const std::string &Service);

  private:
    struct Range {
        std::size_t First = 0;
        std::size_t Last = 0;
        int Error = 0;

        [[nodiscard]] bool Contains(std::size_t Nth) const { return First <= Nth && Nth <= Last; }
    };

    Range m_Nth;
    std::size_t m_Calls = 0;
    std::map<std::string, std::vector<Range>> m_Named;
    std::map<std::string, std::size_t> m_CallsByName;
};

} // namespace fakehost

#endif

// Which host calls fail, and how.
#ifndef FAKEHOST_FAILURES_H
#define FAKEHOST_FAILURES_H

#include <cstddef>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace fakehost {

// Giving less than was asked for without calling it a failure.
enum class Shortage {
    None,
    OneBelowSize, // a text that just fits
    AtSize,       // a text whose terminator does not fit
    OneAboveSize,
    FewerBytes, // half of them, then the end
    NoBytes,    // the end at once
    ByteByByte, // all of them, one at a time
    ReadError,  // it can be opened and not read
    FewerNames, // half of a directory
    Empty,      // a list without members, and it says so
    Hollow,     // a list without the members that it promises
};

const char *TextOf(Shortage Lack);

// How a call fails: with an error, or by a shortage where its service knows that one.
//
// Errors are negated errno values, whatever the service: an allocation or a list then is null, a C library call fails
// with that errno, a text service reports that the text did not fit.
class Fault {
  public:
    constexpr Fault() = default;
    constexpr Fault(int Error) : m_Error(Error) {}
    constexpr Fault(Shortage Lack) : m_Lack(Lack) {}

    // 0 for a shortage.
    [[nodiscard]] constexpr int Error() const { return m_Error; }
    // None for an error.
    [[nodiscard]] constexpr Shortage Lack() const { return m_Lack; }

    constexpr bool operator==(const Fault &Other) const = default;

  private:
    int m_Error = 0;
    Shortage m_Lack = Shortage::None;
};

// Counted calls are all that can fail, in order, apart from logging (it has its own switches in LogBook) and two that
// are made to fail by name only: the pattern compiler, whose result the module does not look at, and the reading of a
// JSON number, which is a matter of content.
class Failures {
  public:
    // The counted call number `Nth`, from 1, fails.
    void FailNth(std::size_t Nth, Fault How) { m_Nth = {Nth, Nth, How}; }
    // That one and all after it fail; a shortage passes by those that do not know it.
    void FailFrom(std::size_t Nth, Fault How) { m_Nth = {Nth, SIZE_MAX, How}; }
    // Every call of the service fails.
    void Fail(const std::string &Service, int Error) { m_Named[Service].push_back({1, SIZE_MAX, Error}); }
    // Call number `Nth` of the service, from 1 and counted since the host was made, fails.
    void Fail(const std::string &Service, int Error, std::size_t Nth) { m_Named[Service].push_back({Nth, Nth, Error}); }
    void Clear();

    [[nodiscard]] std::size_t CountedCalls() const { return m_Calls; }

    // How often the service was called so far.
    [[nodiscard]] std::size_t CallsOf(const std::string &Service) const;

    // How the call that is being made has to fail. `Known`: the shortages of its service.
    std::optional<Fault> NextCounted(const std::string &Service, std::span<const Shortage> Known);
    std::optional<int> NextNamed(const std::string &Service);

  private:
    struct Range {
        std::size_t First = 0;
        std::size_t Last = 0;
        Fault How;

        [[nodiscard]] bool Contains(std::size_t Nth) const { return First <= Nth && Nth <= Last; }
    };

    Range m_Nth;
    std::size_t m_Calls = 0;
    std::map<std::string, std::vector<Range>> m_Named;
    std::map<std::string, std::size_t> m_CallsByName;
};

} // namespace fakehost

#endif

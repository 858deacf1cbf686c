// Fault injection: which host calls fail, and how.
#ifndef FAKEHOST_FAILURES_H
#define FAKEHOST_FAILURES_H

#include <cstddef>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace fakehost {

// Ways in which a service gives less than was asked for without reporting an error.
enum class Shortage {
    None,
    OneBelowSize, // a text that just fits
    AtSize,       // a text whose terminator does not fit
    OneAboveSize,
    FewerBytes, // half of the bytes, then end of file
    NoBytes,    // end of file at once
    ByteByByte, // all bytes, one per read
    ReadError,  // the file can be opened, but not read
    FewerNames, // half of the names in a directory
    Empty,      // a list without members and with count 0
    Hollow,     // a list without members, with the count of the full list
};

const char *TextOf(Shortage Lack);

// How a call fails: with an error, or with a shortage that its service supports.
//
// Errors are negated errno values for every service. An allocation or a list is then null, a C library call fails with
// that errno, and a text service reports that the text did not fit.
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

// Counted calls are all calls that can fail, in order. Not counted are the logging services, which have their own
// switches in LogBook, and two calls that fail by name only: the pattern compiler, whose result the module does not
// check at once, and the reading of a JSON number, which depends on the content.
class Failures {
  public:
    // Makes counted call number `Nth`, from 1, fail.
    void FailNth(std::size_t Nth, Fault How) { m_Nth = {Nth, Nth, How}; }
    // Makes that call and all after it fail. A shortage does not affect services that do not support it.
    void FailFrom(std::size_t Nth, Fault How) { m_Nth = {Nth, SIZE_MAX, How}; }
    // Makes every call of the service fail.
    void Fail(const std::string &Service, int Error) { m_Named[Service].push_back({1, SIZE_MAX, Error}); }
    // Makes call number `Nth` of the service fail. Calls count from 1 since the host was created.
    void Fail(const std::string &Service, int Error, std::size_t Nth) { m_Named[Service].push_back({Nth, Nth, Error}); }
    void Clear();

    [[nodiscard]] std::size_t CountedCalls() const { return m_Calls; }

    // The number of calls of the service so far.
    [[nodiscard]] std::size_t CallsOf(const std::string &Service) const;

    // How the current call has to fail, or nothing. `Known`: the shortages that its service supports.
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

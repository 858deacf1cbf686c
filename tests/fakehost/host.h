// A strict host in memory. It provides every service that the module imports, and, by wrapping at link time, the C
// library calls with which the module touches the world. Nothing outside the process is ever touched: no file, no
// process, no namespace.
//
// One Host per test. It is the current one while it lives; a service that is called without one aborts. Whatever the
// module does against the rules (something released twice or never, a namespace not left, a log site out of order) is
// a violation, which Verify() hands out.
#ifndef FAKEHOST_HOST_H
#define FAKEHOST_HOST_H

#include <cerrno>
#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "failures.h"
#include "fileTree.h"
#include "interfaces.h"
#include "journal.h"
#include "jsonBook.h"
#include "logBook.h"
#include "memoryBook.h"
#include "namespaces.h"
#include "patterns.h"
#include "processes.h"
#include "routeTable.h"
#include "ruleTable.h"
#include "store.h"

namespace fakehost {

// A call that can fail: as it stands in the journal, and the how manieth of its service it is.
struct CountedCall {
    std::string Text;
    std::size_t Nth;
    std::span<const Shortage> Known;
};

// A call that was made to fail.
struct FailedCall {
    std::string Text;
    std::size_t Nth;
    Fault How;
    std::size_t Recorded; // entries of the journal up to it and with it
};

class Host {
  public:
    Host();
    ~Host();
    Host(const Host &) = delete;
    Host &operator=(const Host &) = delete;
    Host(Host &&) = delete;
    Host &operator=(Host &&) = delete;

    // The living host; aborts without one.
    static Host &Current();
    static Host *CurrentOrNull();

    Journal Calls;
    fakehost::Failures Failures;
    LogBook Log{*this};
    MemoryBook Memory{*this};
    FileTree Files{*this};
    Processes Proc{*this};
    Namespaces Netns{*this};
    Interfaces Netio{*this};
    RouteTable Routes;
    RuleTable Rules;
    Store Rows{*this};
    Patterns Regex{*this};
    JsonBook Json{*this};

    // What a service answers when it succeeds; 0 unless it stands here.
    std::map<std::string, int> SuccessResults;
    // Run when a service is called, before it does anything.
    std::map<std::string, std::function<void()>> Hooks;

    // Nothing is recorded and no content kept: for measurements and long runs.
    void RecordNothing();

    void Violation(const std::string &Text) { m_Violations.push_back(Text); }
    // Violations so far with whatever is not released. A host that goes without being asked aborts if there is one.
    std::vector<std::string> Verify();

    // A counted call enters: it is recorded, and how it has to fail is returned. `Known`: the shortages of its service,
    // in storage that outlives the host.
    template <typename... Args>
    std::optional<Fault> EnterWith(std::span<const Shortage> Known, EntryKind Kind, const char *Name,
                                   const Args &...Arguments)
    {
        Note(Kind, Name, Arguments...);
        const std::optional<Fault> How = Failures.NextCounted(Name, Known);
        if (m_KeepCounted) {
            m_Counted.push_back({Describe(Name, Arguments...), Failures.CallsOf(Name), Known});
        }
        if (How.has_value()) {
            m_Failed.push_back({Describe(Name, Arguments...), Failures.CallsOf(Name), *How, Calls.Entries().size()});
        }
        return How;
    }

    // The same for a service without shortages: the error with which it has to fail.
    template <typename... Args>
    std::optional<int> Enter(EntryKind Kind, const char *Name, const Args &...Arguments)
    {
        const std::optional<Fault> How = EnterWith({}, Kind, Name, Arguments...);
        return How.has_value() ? std::optional(How->Error()) : std::nullopt;
    }

    // A call that cannot fail.
    template <typename... Args>
    void Note(EntryKind Kind, const char *Name, const Args &...Arguments)
    {
        Log.RequireIdle(Name);
        Calls.Add(Kind, Name, Arguments...);
        RunHook(Name);
    }

    [[nodiscard]] int Success(const char *Name) const;
    // The calls that were made to fail, in order, whether recorded or not.
    [[nodiscard]] const std::vector<FailedCall> &Failed() const { return m_Failed; }
    // Every call that can fail is to be kept.
    void KeepCounted() { m_KeepCounted = true; }
    [[nodiscard]] const std::vector<CountedCall> &Counted() const { return m_Counted; }

  private:
    void RunHook(const char *Name);

    std::vector<std::string> m_Violations;
    std::vector<FailedCall> m_Failed;
    std::vector<CountedCall> m_Counted;
    bool m_KeepCounted = false;
    bool m_Verified = false;
};

// A service leaves errno as it found it, so that a test can tell which errno the module looked at.
class ErrnoKept {
  public:
    ErrnoKept() = default;
    ~ErrnoKept() { errno = m_Errno; }
    ErrnoKept(const ErrnoKept &) = delete;
    ErrnoKept &operator=(const ErrnoKept &) = delete;
    ErrnoKept(ErrnoKept &&) = delete;
    ErrnoKept &operator=(ErrnoKept &&) = delete;

  private:
    int m_Errno = errno;
};

} // namespace fakehost

#endif

// A strict host in memory. It provides every service that the module imports. It also wraps, at link time, the C
// library calls that reach outside the process, so that no real file, process or namespace is touched.
//
// Each test makes one Host, which is the current one until it is destroyed. A service that is called without a Host
// aborts. A rule that the module breaks is a violation: something released twice or never, a namespace not switched
// back, a log site out of order. Verify() returns the violations.
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

// A call that can fail: its text as in the journal, and its number among the calls of its service, from 1.
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
    std::size_t Recorded; // number of journal entries up to and including this call
};

class Host {
  public:
    Host();
    ~Host();
    Host(const Host &) = delete;
    Host &operator=(const Host &) = delete;
    Host(Host &&) = delete;
    Host &operator=(Host &&) = delete;

    // The current host. Aborts if there is none.
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

    // The success results of services, by name. The default is 0.
    std::map<std::string, int> SuccessResults;
    // Functions that run when a service is called, before it does its work.
    std::map<std::string, std::function<void()>> Hooks;

    // Stops recording calls and keeping contents. For measurements and long runs.
    void RecordNothing();

    void Violation(const std::string &Text) { m_Violations.push_back(Text); }
    // The violations so far, with everything that is not released. If Verify() was not called and there is a violation,
    // the destructor aborts.
    std::vector<std::string> Verify();

    // Records a counted call and returns how it has to fail. `Known`: the shortages that its service supports; they
    // must outlive the host.
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

    // The same for a service without shortages. Returns the error with which the call has to fail.
    template <typename... Args>
    std::optional<int> Enter(EntryKind Kind, const char *Name, const Args &...Arguments)
    {
        const std::optional<Fault> How = EnterWith({}, Kind, Name, Arguments...);
        return How.has_value() ? std::optional(How->Error()) : std::nullopt;
    }

    // Records a call that cannot fail.
    template <typename... Args>
    void Note(EntryKind Kind, const char *Name, const Args &...Arguments)
    {
        Log.RequireIdle(Name);
        Calls.Add(Kind, Name, Arguments...);
        RunHook(Name);
    }

    [[nodiscard]] int Success(const char *Name) const;
    // The calls that failed by injection, in order, recorded or not.
    [[nodiscard]] const std::vector<FailedCall> &Failed() const { return m_Failed; }
    // Keeps every counted call for Counted().
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

// Restores errno at the end of a service, so that a test knows which errno the module saw.
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

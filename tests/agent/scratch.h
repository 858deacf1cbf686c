// What the tests of base/ and services/ share: a directory, the log of a piece of work, the work of an ordinary user.
#ifndef KAVEL_TESTS_AGENT_SCRATCH_H
#define KAVEL_TESTS_AGENT_SCRATCH_H

#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "unique_fd.h"

namespace kavel::agent {

// A directory below $TMPDIR or /tmp that everybody may read. Removed with its content.
class ScratchDirectory {
  public:
    ScratchDirectory();
    ScratchDirectory(const ScratchDirectory &) = delete;
    ScratchDirectory &operator=(const ScratchDirectory &) = delete;
    ~ScratchDirectory();

    [[nodiscard]] const std::string &Path() const { return path_; }
    [[nodiscard]] std::string File(const std::string &name) const { return path_ + "/" + name; }
    // Creates the file or replaces its content. Returns its path.
    std::string Write(const std::string &name, std::string_view content) const;
    // By name, the hidden ones too.
    [[nodiscard]] std::vector<std::string> Names() const;

  private:
    std::string path_;
};

// The file's bytes. Fails the test when it cannot be read.
[[nodiscard]] std::string ContentOf(const std::string &path);
// The permission bits. Fails the test when there is no such file.
[[nodiscard]] mode_t ModeOf(const std::string &path);

// Takes standard error for a scope.
class CapturedStderr {
  public:
    CapturedStderr();
    CapturedStderr(const CapturedStderr &) = delete;
    CapturedStderr &operator=(const CapturedStderr &) = delete;
    ~CapturedStderr();

    // What was written so far.
    [[nodiscard]] std::string Text() const;

  private:
    UniqueFd file_;
    UniqueFd own_;
};

// Without root's rights for a scope. Changes nothing for a process that has none.
class OrdinaryUser {
  public:
    OrdinaryUser();
    OrdinaryUser(const OrdinaryUser &) = delete;
    OrdinaryUser &operator=(const OrdinaryUser &) = delete;
    ~OrdinaryUser();
};

// How a piece of work failed: the errno and the text of its std::system_error. The errno is 0 when it did not throw.
struct ThrownError {
    int error = 0;
    std::string text;
    bool operator==(const ThrownError &) const = default;
};
[[nodiscard]] ThrownError FailureOf(const std::function<void()> &work);
void PrintTo(const ThrownError &failure, std::ostream *stream);

// A child process that lives until this object ends, in a shell that waits: `arguments` follow the shell's "-c
// <script>".
class WaitingProcess {
  public:
    explicit WaitingProcess(const std::vector<std::string> &arguments);
    WaitingProcess(const WaitingProcess &) = delete;
    WaitingProcess &operator=(const WaitingProcess &) = delete;
    ~WaitingProcess();

    [[nodiscard]] pid_t Pid() const { return pid_; }
    // Ends it and leaves it a zombie.
    void End();
    // Ends it and reaps it.
    void Reap();

  private:
    pid_t pid_ = 0;
    UniqueFd input_;
};

} // namespace kavel::agent

#endif

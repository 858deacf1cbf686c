// What a process gets from the agent that starts it.
#ifndef KAVEL_AGENT_SPAWN_H
#define KAVEL_AGENT_SPAWN_H

#include <spawn.h>

#include <optional>
#include <vector>

#include "unique_fd.h"

namespace kavel::agent {

// Throws std::system_error when `error`, the result of a function of the posix_spawn() family, is not 0.
void CheckSpawn(int error, const char *what);

class SpawnActions {
  public:
    SpawnActions();
    SpawnActions(const SpawnActions &) = delete;
    SpawnActions &operator=(const SpawnActions &) = delete;
    ~SpawnActions();

    // A process may outlive the agent: it must not keep the agent's directory, streams and descriptors. Its standard
    // error is `errors`, or nothing. It keeps `mark`, if there is one.
    void Detach(std::optional<int> errors, const UniqueFd &mark);
    [[nodiscard]] const posix_spawn_file_actions_t *Get() const { return &actions_; }

  private:
    posix_spawn_file_actions_t actions_{};
};

class SpawnAttributes {
  public:
    SpawnAttributes();
    SpawnAttributes(const SpawnAttributes &) = delete;
    SpawnAttributes &operator=(const SpawnAttributes &) = delete;
    ~SpawnAttributes();

    // The default signal mask and dispositions, and a session of its own, so that a terminal's signals do not reach it.
    void ResetSignalsAndSession();
    [[nodiscard]] const posix_spawnattr_t *Get() const { return &attributes_; }

  private:
    posix_spawnattr_t attributes_{};
};

// The agent's environment without the variables that speak of the agent alone; null at the end. It points into the
// environment.
[[nodiscard]] std::vector<char *> EnvironmentOfChild();

} // namespace kavel::agent

#endif

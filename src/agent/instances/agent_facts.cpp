#include "instances/agent_facts.h"

#include <fstream>
#include <system_error>

#include "base/files.h"
#include "base/procfs.h"
#include "log.h"

namespace kavel::agent {

AgentStatus StatusOfAgent(const AgentFacts &facts)
{
    const auto uptime = std::chrono::steady_clock::now() - facts.start;
    return {facts.version, static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::seconds>(uptime).count()),
            OwnMemory(), facts.restarts};
}

std::uint32_t CountStart(const std::string &path)
{
    std::uint32_t before = 0;
    std::ifstream(path) >> before; // 0 if there is no number
    try {
        ReplaceFile(path, std::to_string(before + 1) + "\n");
    } catch (const std::system_error &failure) {
        Log(LogLevel::kWarning, "the starts of the agent are not counted: %s", failure.what());
    }
    return before;
}

} // namespace kavel::agent

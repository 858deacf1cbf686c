#include "services/host.h"

#include <cstdlib>
#include <utility>

#include "base/log.h"
#include "vqMemory.h"

namespace kavel::agent {
namespace {

Host *g_current = nullptr;

} // namespace

Host::Host(Config configuration) : config(std::move(configuration))
{
    conversions.DataTransJsonStrFree = [](char *text) { VQ_AgentMemFree(text); };
    g_current = this;
}

Host::~Host()
{
    g_current = nullptr;
}

Host &Host::Current()
{
    if (g_current == nullptr) {
        Log(LogLevel::kError, "a service was called without a host");
        std::abort();
    }
    return *g_current;
}

} // namespace kavel::agent

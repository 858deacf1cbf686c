#include "services/host.h"

#include <cstdlib>
#include <utility>

#include "log.h"
#include "vqMemory.h"

namespace kavel::agent {
namespace {

Host *currentHost = nullptr;

} // namespace

Host::Host(Config configuration) : config(std::move(configuration))
{
    conversions.DataTransJsonStrFree = [](char *text) { VQ_AgentMemFree(text); };
    currentHost = this;
}

Host::~Host()
{
    currentHost = nullptr;
}

Host &Host::Current()
{
    if (currentHost == nullptr) {
        Log(LogLevel::kError, "a service was called without a host");
        std::abort();
    }
    return *currentHost;
}

Host *Host::CurrentOrNull()
{
    return currentHost;
}

} // namespace kavel::agent

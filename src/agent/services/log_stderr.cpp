// The module's lines, written to the agent's log.
#include <pthread.h>

#include <cerrno>
#include <cstdarg>
#include <string>
#include <utility>

#include "failure.h"
#include "log.h"
#include "services/host.h"
#include "vqLog.h"

namespace kavel::agent {
namespace {

constexpr const char *kTag = "vqagent";

LogLevel FromModule(std::uint32_t level)
{
    switch (level) {
    case VQ_LOG_LEVEL_NOTICE:
        return LogLevel::kNotice;
    case VQ_LOG_LEVEL_VERBOSE:
        return LogLevel::kDebug;
    case VQ_LOG_LEVEL_WARNING:
        return LogLevel::kWarning;
    default:
        return LogLevel::kError;
    }
}

__attribute__((format(printf, 3, 0))) void LogValist(const char * /*tag*/, std::uint32_t level, const char *format,
                                                     va_list arguments)
{
    (void)ResultOf([&] {
        const auto vpnId = Host::Current().currentVpn;
        const std::string prefix = vpnId ? "vpn " + std::to_string(*vpnId) + ": " : "";
        WriteLogLine(FromModule(level), prefix + FormatText(format, arguments));
        return 0;
    });
}

__attribute__((format(printf, 3, 4))) void LogVariadic(const char *tag, std::uint32_t level, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    LogValist(tag, level, format, arguments);
    va_end(arguments);
}

const char *LevelText(std::uint32_t level)
{
    switch (level) {
    case VQ_LOG_LEVEL_NOTICE:
        return "NOTICE:";
    case VQ_LOG_LEVEL_VERBOSE:
        return "VERBOSE:";
    case VQ_LOG_LEVEL_WARNING:
        return "WARNING:";
    default:
        return "ERROR:";
    }
}

constexpr VQ_LOG_IMPL_ITEM kImplementation = {LogVariadic, LogValist, LevelText};

std::int32_t KeepError(std::string text)
{
    Host &host = Host::Current();
    host.flexLog = text;
    host.moduleErrors.Add(std::move(text));
    return static_cast<std::int32_t>(host.flexLog.size());
}

} // namespace
} // namespace kavel::agent

using namespace kavel;
using namespace kavel::agent;

extern "C" {

BOOL VQ_LogTest(uint32_t /*module*/, uint32_t level, BOOL flag, const char * /*function*/)
{
    // FALSE asks for the dump of the flex log. It repeats the line before it, so it is a debug line.
    const LogLevel agentLevel = flag == FALSE ? LogLevel::kDebug : FromModule(level);
    return IsLogged(agentLevel) && !Host::Current().moduleIsSilent ? TRUE : FALSE;
}

const VQ_LOG_IMPL_ITEM *VQ_LogGetImplItem(uint32_t /*module*/)
{
    return &kImplementation;
}

const char *VQ_LogGetModuleName(uint32_t module)
{
    return module == VQ_LOG_MODULE_ADVANCED_DNS ? "advanceddns" : "unknown";
}

VQ_ERR_T VQ_ThreadGetName(char *buffer, size_t size)
{
    return buffer == nullptr ? -EINVAL : -pthread_getname_np(pthread_self(), buffer, size);
}

const char *VQ_AgentLogGetTag(void)
{
    return kTag;
}

VQ_ERR_T VQ_FlexLogSetFormatData(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const VQ_ERR_T result = ResultOf([&] { return KeepError(FormatText(format, arguments)); });
    va_end(arguments);
    return result;
}

char *VQ_FlexLogGetFormatBuff(void)
{
    return Host::Current().flexLog.data();
}

void VQ_FlexLogDataReset(void)
{
    Host::Current().flexLog.clear();
}
}

#include "module_host.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <regex.h>

#include <json-c/json.h>

#include "module_counts.h"
#include "vqCtrlAdvancedDns.h"
#include "vqMemory.h"
#include "vqRoute.h"

namespace kavel::bench {

namespace {

std::string *s_written = nullptr;

} // namespace

NullHost::NullHost()
{
    constexpr pid_t kPid = 1234;

    host_.RecordNothing();
    host_.Log.LevelEnabled.fill(false);
    host_.Log.DumpEnabled = false;
    host_.Files.PutInstance(kVpnId);
    host_.Netio.SetWans(kVpnId, {{false}});
    host_.Netio.SetLans(kVpnId, {{"lan0"}});
    host_.Proc.AddInstance(kPid, kVpnId);
    host_.Proc.PutPidFile(kVpnId, std::to_string(kPid) + '\n');
    host_.Rows.Enabled = true;
    host_.Rows.Conversions.DataTransJsonStrFree = [](char *text) { VQ_AgentMemFree(text); };
    host_.Rows.Conversions.DnsmasqConfToStr = VQCtrl_AdvancedDnsConfToJsonStr;
    host_.Rows.Conversions.DnsmasqStrToConf = VQCtrl_AdvancedDnsJsonStrToConf;
    VQCtrl_AgentSetCPEAdvancedDnsOps();
}

void CaptureWrites(std::string *target)
{
    s_written = target;
}

} // namespace kavel::bench

// ---- Services without bookkeeping ----

extern "C" {
void *__wrap_VQ_AgentMemAlloc(size_t size);
void *__wrap_VQ_AgentMemZeroAlloc(size_t size);
void __wrap_VQ_AgentMemFree(void *block);
size_t __wrap_VQ_SNPrintf(char *buffer, size_t size, const char *format, ...) __attribute__((format(printf, 3, 4)));
size_t __wrap_VQ_SafeStrCopy(char *target, size_t size, const char *source);
char *__wrap_VQ_SafeStrGetIp4Addr(char *text, size_t size, uint32_t *ip);
int __wrap_VQ_IPNum2IPStr(uint32_t ip, uint32_t flag, char *buffer, uint32_t size);
int32_t __wrap_VQ_WriteSyncWithFilePath(const char *path, const char *text, size_t length);
VQ_ERR_T __wrap_VQ_RTCRouteAdd(uint32_t vpnId, const VQ_RTC_ROUTE_CONF *route);
}

void *__wrap_VQ_AgentMemAlloc(size_t size)
{
    return std::malloc(size);
}

void *__wrap_VQ_AgentMemZeroAlloc(size_t size)
{
    return std::calloc(1, size);
}

void __wrap_VQ_AgentMemFree(void *block)
{
    std::free(block);
}

size_t __wrap_VQ_SNPrintf(char *buffer, size_t size, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const auto length = static_cast<size_t>(std::vsnprintf(buffer, size, format, arguments));
    va_end(arguments);
    kavel::bench::CountCopied(length);
    return length;
}

size_t __wrap_VQ_SafeStrCopy(char *target, size_t size, const char *source)
{
    const size_t length = std::strlen(source);
    if (size > 0) {
        const size_t copied = std::min(length, size - 1);
        std::memcpy(target, source, copied);
        target[copied] = '\0';
    }
    return length;
}

char *__wrap_VQ_SafeStrGetIp4Addr(char *text, size_t /*size*/, uint32_t *ip)
{
    in_addr address{};
    if (inet_pton(AF_INET, text, &address) != 1) {
        return nullptr;
    }
    *ip = ntohl(address.s_addr);
    return text;
}

int __wrap_VQ_IPNum2IPStr(uint32_t ip, uint32_t /*flag*/, char *buffer, uint32_t size)
{
    const int length =
        std::snprintf(buffer, size, "%u.%u.%u.%u", ip >> 24U, (ip >> 16U) & 255U, (ip >> 8U) & 255U, ip & 255U);
    kavel::bench::CountCopied(static_cast<size_t>(length));
    return static_cast<uint32_t>(length) < size ? 0 : -EOVERFLOW;
}

int32_t __wrap_VQ_WriteSyncWithFilePath(const char * /*path*/, const char *text, size_t length)
{
    if (kavel::bench::s_written != nullptr && text != nullptr) {
        kavel::bench::s_written->append(text, length);
    }
    return 0;
}

VQ_ERR_T __wrap_VQ_RTCRouteAdd(uint32_t /*vpnId*/, const VQ_RTC_ROUTE_CONF * /*route*/)
{
    return 0;
}

// ---- The libraries ----

// The fake host expects that the linker wraps json-c and the regex functions. In this program it does not, but the fake
// host still refers to the __real_ names, which are defined here.
#define BENCH_REAL(result, name, parameters, arguments) \
    extern "C" result __real_##name parameters;         \
    result __real_##name parameters                     \
    {                                                   \
        return name arguments;                          \
    }

BENCH_REAL(json_object *, json_object_new_object, (), ())
BENCH_REAL(json_object *, json_object_new_array, (), ())
BENCH_REAL(json_object *, json_object_new_boolean, (json_bool value), (value))
BENCH_REAL(json_object *, json_object_new_int, (int32_t value), (value))
BENCH_REAL(json_object *, json_object_new_string, (const char *value), (value))
BENCH_REAL(json_object *, json_tokener_parse, (const char *text), (text))
BENCH_REAL(int, json_object_object_add, (json_object * parent, const char *key, json_object *value),
           (parent, key, value))
BENCH_REAL(int, json_object_array_add, (json_object * parent, json_object *value), (parent, value))
BENCH_REAL(const char *, json_object_to_json_string, (json_object * tree), (tree))
BENCH_REAL(int, json_object_put, (json_object * tree), (tree))
BENCH_REAL(int32_t, json_object_get_int, (const json_object *value), (value))
BENCH_REAL(int, regcomp, (regex_t * pattern, const char *text, int flags), (pattern, text, flags))
BENCH_REAL(int, regexec, (const regex_t *pattern, const char *text, size_t count, regmatch_t *matches, int flags),
           (pattern, text, count, matches, flags))
BENCH_REAL(void, regfree, (regex_t * pattern), (pattern))

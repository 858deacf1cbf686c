/* The module's lines, on the standard error stream. A line of the module ends in a newline. */
#include "host.h"

char g_firstError[kTextSize];
static char s_flexLog[kTextSize];

VQ_PRINTF_LIKE(3, 4) static void LogLine(const char *tag, uint32_t level, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    fprintf(stderr, "%s %u: ", tag, level);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
}

BOOL VQ_LogTest(uint32_t module, uint32_t level, BOOL flag, const char *function)
{
    (void)module, (void)level, (void)function;
    return flag;
}

const VQ_LOG_IMPL_ITEM *VQ_LogGetImplItem(uint32_t module)
{
    static const VQ_LOG_IMPL_ITEM kItem = {.Log = LogLine};
    return module == VQ_LOG_MODULE_ADVANCED_DNS ? &kItem : NULL;
}

const char *VQ_LogGetModuleName(uint32_t module)
{
    return module == VQ_LOG_MODULE_ADVANCED_DNS ? "advanceddns" : "unknown";
}

/* This host has one thread: its lines need no name. */
VQ_ERR_T VQ_ThreadGetName(char *buffer, size_t size)
{
    (void)buffer, (void)size;
    return -ENOENT;
}

const char *VQ_AgentLogGetTag(void)
{
    return "example-host";
}

/* The first error of a call is its cause. The module also reports three successes as errors. */
VQ_ERR_T VQ_FlexLogSetFormatData(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(s_flexLog, sizeof(s_flexLog), format, arguments);
    va_end(arguments);
    if (g_firstError[0] == '\0' && strstr(s_flexLog, " success\n") == NULL) {
        VQ_SafeStrCopy(g_firstError, sizeof(g_firstError), s_flexLog);
    }
    return length;
}

char *VQ_FlexLogGetFormatBuff(void)
{
    return s_flexLog;
}

void VQ_FlexLogDataReset(void)
{
    s_flexLog[0] = '\0';
}

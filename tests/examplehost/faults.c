/* Which fault is switched on, and the faults of memory, strings, log and json-c. */
#include "faults.h"

#include <arpa/inet.h>
#include <byteswap.h>
#include <dlfcn.h>
#include <errno.h>
#include <json-c/json.h>
#include <malloc.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include "vqLog.h"
#include "vqMemory.h"
#include "vqSafeStr.h"

static const char *SwitchedOn(void)
{
    const char *fault = getenv("KAVEL_HOST_FAULT");
    return fault != NULL ? fault : "";
}

/* A name that is misspelt would be a fault that is never switched on. */
__attribute__((constructor)) static void RefuseUnknownFault(void)
{
    char line[256];
    const size_t length = strlen(SwitchedOn());
    FILE *list = fopen(FAULTS_LIST, "re");
    bool isKnown = length == 0;
    while (list != NULL && !isKnown && fgets(line, sizeof(line), list) != NULL) {
        isKnown = strncmp(line, SwitchedOn(), length) == 0 && line[length] == ':';
    }
    if (!isKnown) {
        fprintf(stderr, "example-host: no fault is called %s\n", SwitchedOn());
        _Exit(3);
    }
    if (list != NULL) {
        fclose(list);
    }
}

bool HasFault(const char *name)
{
    return strcmp(SwitchedOn(), name) == 0;
}

/* As `ulimit -s` in a start script or LimitSTACK= in a unit does. */
__attribute__((constructor)) static void LimitStack(void)
{
    const struct rlimit limit = {65536, 65536};
    if (HasFault("stack-small")) {
        setrlimit(RLIMIT_STACK, &limit);
    }
}

/* ---- Memory ---- */

REAL(VQ_AgentMemAlloc);
REAL(VQ_AgentMemZeroAlloc);
REAL(VQ_AgentMemFree);

static void *s_released; /* the memory that was released last, kept to be used again */
static char s_shared[2 * 1024 * 1024];

void *VQ_AgentMemAlloc(const size_t size)
{
    if (HasFault("memory-shared") && size <= sizeof(s_shared)) {
        return s_shared;
    }
    if (HasFault("memory-unaligned")) {
        char *memory = Real_VQ_AgentMemAlloc(size + 4);
        return memory != NULL ? memory + 4 : NULL;
    }
    if ((HasFault("memory-small") && size > 1024 * 1024) || (HasFault("memory-of-0-is-null") && size == 0)) {
        return NULL;
    }
    void *memory = Real_VQ_AgentMemAlloc(size);
    if (HasFault("memory-exhausted-ends") && memory == NULL) {
        abort();
    }
    return memory;
}

void *VQ_AgentMemZeroAlloc(const size_t size)
{
    if (HasFault("memory-not-zeroed")) {
        void *memory = malloc(size);
        return memory != NULL ? memset(memory, 0xA5, size) : NULL;
    }
    if (s_released != NULL && malloc_usable_size(s_released) >= size) {
        void *memory = s_released;
        s_released = NULL;
        return memory;
    }
    return Real_VQ_AgentMemZeroAlloc(size);
}

void VQ_AgentMemFree(void *pointer)
{
    if (pointer == s_shared || HasFault("memory-unaligned")) {
        return;
    }
    if (HasFault("memory-free-null-ends") && pointer == NULL) {
        abort();
    }
    if (HasFault("memory-not-zeroed-again") && pointer != NULL) {
        Real_VQ_AgentMemFree(s_released);
        s_released = pointer;
        return;
    }
    Real_VQ_AgentMemFree(pointer);
}

/* ---- Strings ---- */

REAL(VQ_SNPrintf);
REAL(VQ_SafeStrCopy);
REAL(VQ_SafeStrGetIp4Addr);
REAL(VQ_IPNum2IPStr);

static size_t Written(size_t length, size_t size)
{
    return size == 0 ? 0 : length < size ? length : size - 1;
}

/* The format without the flags that pad numbers with zeros. */
__attribute__((format_arg(1))) static const char *Unpadded(const char *format)
{
    static char text[4096];
    size_t length = 0;
    for (const char *from = format; *from != '\0' && length < sizeof(text) - 1; ++from) {
        if (*from != '0' || from == format || from[-1] != '%') {
            text[length++] = *from;
        }
    }
    text[length] = '\0';
    return text;
}

size_t VQ_SNPrintf(char *buffer, size_t size, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const size_t length =
        (size_t)vsnprintf(buffer, size, HasFault("print-without-zeros") ? Unpadded(format) : format, arguments);
    va_end(arguments);
    if (HasFault("print-not-terminated") && length >= size && size > 0) {
        buffer[size - 1] = 'x';
    }
    return HasFault("print-returns-written") ? Written(length, size) : length;
}

size_t VQ_SafeStrCopy(char *target, size_t size, const char *source)
{
    if (HasFault("copy-not-terminated")) {
        for (size_t at = 0; at < size && (at == 0 || source[at - 1] != '\0'); ++at) {
            target[at] = source[at];
        }
        return strlen(source);
    }
    const size_t length = Real_VQ_SafeStrCopy(target, size, source);
    return HasFault("copy-returns-written") ? Written(length, size) : length;
}

char *VQ_SafeStrGetIp4Addr(const char *text, size_t size, uint32_t *ip)
{
    uint32_t octets[4];
    if (HasFault("address-read-unchecked")) {
        if (sscanf(text, "%u.%u.%u.%u", &octets[0], &octets[1], &octets[2], &octets[3]) != 4) {
            return NULL;
        }
        *ip = octets[0] << 24U | octets[1] << 16U | octets[2] << 8U | octets[3];
        return (char *)(uintptr_t)text;
    }
    char *result = Real_VQ_SafeStrGetIp4Addr(text, HasFault("address-read-past-size") ? strlen(text) : size, ip);
    *ip = result != NULL && HasFault("address-read-reversed") ? bswap_32(*ip) : *ip;
    return result;
}

int VQ_IPNum2IPStr(const uint32_t ip, const uint32_t flag, char *buffer, uint32_t size)
{
    if (HasFault("address-written-cut")) {
        char text[INET_ADDRSTRLEN];
        Real_VQ_IPNum2IPStr(ip, flag, text, sizeof(text));
        Real_VQ_SafeStrCopy(buffer, size, text);
        return 0;
    }
    return Real_VQ_IPNum2IPStr(HasFault("address-written-reversed") ? bswap_32(ip) : ip, flag, buffer, size);
}

/* ---- Log ---- */

REAL(VQ_LogTest);
REAL(VQ_LogGetImplItem);
REAL(VQ_LogGetModuleName);
REAL(VQ_AgentLogGetTag);
REAL(VQ_ThreadGetName);
REAL(VQ_FlexLogSetFormatData);
REAL(VQ_FlexLogDataReset);

static const char *NoLevelText(uint32_t level)
{
    (void)level;
    return NULL;
}

static char s_lineBuffer[256];

/* The longest line that its author has seen fits. */
VQ_PRINTF_LIKE(3, 4) static void LogShortLine(const char *tag, uint32_t level, const char *format, ...)
{
    char line[128];
    va_list arguments;
    (void)tag, (void)level;
    va_start(arguments, format);
    vsprintf(line, format, arguments);
    va_end(arguments);
    memcpy(s_lineBuffer, line, sizeof(line));
}

const VQ_LOG_IMPL_ITEM *VQ_LogGetImplItem(uint32_t module)
{
    static VQ_LOG_IMPL_ITEM item;
    item = *Real_VQ_LogGetImplItem(module);
    if (HasFault("level-text-missing")) {
        item.LogLevel2Str = NoLevelText;
    }
    if (HasFault("log-not-set")) {
        memset(&item.Log, 0xA5, sizeof(item.Log));
    }
    if (HasFault("log-buffer-short")) {
        item.Log = LogShortLine;
    }
    return &item;
}

BOOL VQ_LogTest(uint32_t module, uint32_t level, BOOL flag, const char *function)
{
    if (HasFault("log-without-errors") && level == VQ_LOG_LEVEL_ERROR) {
        return FALSE;
    }
    return HasFault("log-test-is-level") ? (BOOL)level : Real_VQ_LogTest(module, level, flag, function);
}

const char *VQ_LogGetModuleName(uint32_t module)
{
    return HasFault("module-name-missing") ? NULL : Real_VQ_LogGetModuleName(module);
}

const char *VQ_AgentLogGetTag(void)
{
    return HasFault("tag-missing") ? NULL : Real_VQ_AgentLogGetTag();
}

VQ_ERR_T VQ_ThreadGetName(char *buffer, size_t size)
{
    if (HasFault("thread-name-unbounded")) {
        return prctl(PR_GET_NAME, buffer) == 0 ? 0 : -errno;
    }
    if (HasFault("thread-name-not-terminated")) {
        memset(buffer, 'x', size);
        return 0;
    }
    return Real_VQ_ThreadGetName(buffer, size);
}

VQ_ERR_T VQ_FlexLogSetFormatData(const char *format, ...)
{
    char *text = NULL;
    va_list arguments;
    va_start(arguments, format);
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    if (HasFault("flex-log-unbounded")) {
        char buffer[256];
        strcpy(buffer, text);
        free(text);
        return Real_VQ_FlexLogSetFormatData("%s", buffer);
    }
    const bool keepsOldText = HasFault("flex-log-not-replaced") && VQ_FlexLogGetFormatBuff()[0] != '\0';
    const VQ_ERR_T result = keepsOldText ? length : Real_VQ_FlexLogSetFormatData("%s", text);
    free(text);
    return result;
}

void VQ_FlexLogDataReset(void)
{
    if (!HasFault("flex-log-not-reset")) {
        Real_VQ_FlexLogDataReset();
    }
}

/* ---- json-c ---- */

/* The function of json-c with this name. */
static void FindJson(const char *name, void *function)
{
    void *address = dlsym(RTLD_NEXT, name);
    memcpy(function, &address, sizeof(address));
}

int32_t json_object_get_int(const struct json_object *object)
{
    int32_t (*real)(const struct json_object *object);
    FindJson(__func__, &real);
    return real(object) + (HasFault("json-number-wrong") ? 1 : 0);
}

enum json_type json_object_get_type(const struct json_object *object)
{
    enum json_type (*real)(const struct json_object *object);
    FindJson(__func__, &real);
    const enum json_type type = real(object);
    return HasFault("json-type-wrong") && type == json_type_int ? json_type_string : type;
}

int json_object_array_add(struct json_object *list, struct json_object *item)
{
    int (*real)(struct json_object * list, struct json_object * item);
    FindJson(__func__, &real);
    return HasFault("json-array-stays-empty") ? 0 : real(list, item);
}

const char *json_object_to_json_string(struct json_object *object)
{
    const char *(*real)(struct json_object * object);
    FindJson(__func__, &real);
    return HasFault("json-text-without-blanks") ? json_object_to_json_string_ext(object, JSON_C_TO_STRING_PLAIN)
                                                : real(object);
}

struct json_object *json_tokener_parse(const char *text)
{
    struct json_object *(*real)(const char *text);
    FindJson(__func__, &real);
    struct json_object *object = real(text);
    return HasFault("json-reads-anything") && object == NULL ? json_object_new_object() : object;
}

int json_object_put(struct json_object *object)
{
    int (*real)(struct json_object * object);
    FindJson(__func__, &real);
    return HasFault("json-object-kept") ? 1 : real(object);
}

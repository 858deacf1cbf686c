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

/* ---- Memory ---- */

REAL(VQ_AgentMemAlloc);
REAL(VQ_AgentMemZeroAlloc);
REAL(VQ_AgentMemFree);

static void *s_released; /* the memory that was released last, kept to be used again */

void *VQ_AgentMemAlloc(const size_t size)
{
    return HasFault("memory-small") && size > 1024 * 1024 ? NULL : Real_VQ_AgentMemAlloc(size);
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

size_t VQ_SNPrintf(char *buffer, size_t size, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const size_t length = (size_t)vsnprintf(buffer, size, format, arguments);
    va_end(arguments);
    return HasFault("print-returns-written") ? Written(length, size) : length;
}

size_t VQ_SafeStrCopy(char *target, size_t size, const char *source)
{
    const size_t length = Real_VQ_SafeStrCopy(target, size, source);
    return HasFault("copy-returns-written") ? Written(length, size) : length;
}

char *VQ_SafeStrGetIp4Addr(const char *text, size_t size, uint32_t *ip)
{
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

REAL(VQ_LogGetImplItem);
REAL(VQ_ThreadGetName);
REAL(VQ_FlexLogSetFormatData);
REAL(VQ_FlexLogDataReset);

static const char *NoLevelText(uint32_t level)
{
    (void)level;
    return NULL;
}

const VQ_LOG_IMPL_ITEM *VQ_LogGetImplItem(uint32_t module)
{
    static VQ_LOG_IMPL_ITEM item;
    if (!HasFault("level-text-missing")) {
        return Real_VQ_LogGetImplItem(module);
    }
    item = *Real_VQ_LogGetImplItem(module);
    item.LogLevel2Str = NoLevelText;
    return &item;
}

VQ_ERR_T VQ_ThreadGetName(char *buffer, size_t size)
{
    if (HasFault("thread-name-unbounded")) {
        return prctl(PR_GET_NAME, buffer) == 0 ? 0 : -errno;
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

int json_object_put(struct json_object *object)
{
    int (*real)(struct json_object * object);
    FindJson(__func__, &real);
    return HasFault("json-object-kept") ? 1 : real(object);
}

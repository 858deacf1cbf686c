/* Logging: a level test, the log implementation of a module, and the flex-log buffer that keeps the last error. */
#ifndef VQ_LOG_H
#define VQ_LOG_H

#include <stdarg.h>

#include "vqPlatform.h"

VQ_EXTERN_C_BEGIN

/* Log module number of the advanced DNS module. */
#define VQ_LOG_MODULE_ADVANCED_DNS 62U

/* Levels. A success reported at VQ_LOG_LEVEL_ERROR is possible: the level says who should see a line. */
#define VQ_LOG_LEVEL_NOTICE 1U
#define VQ_LOG_LEVEL_VERBOSE 2U
#define VQ_LOG_LEVEL_WARNING 3U
#define VQ_LOG_LEVEL_ERROR 4U

/* How a module's lines are written. Each operation may be null; a null one is not called. */
typedef struct {
    void (*Log)(const char *Tag, uint32_t Level, const char *Format, ...) VQ_PRINTF_LIKE(3, 4);
    void (*LogValist)(const char *Tag, uint32_t Level, const char *Format, va_list Args);
    const char *(*LogLevel2Str)(uint32_t Level);
} VQ_LOG_IMPL_ITEM;

/* Whether a line of `Module` at `Level` is to be written for `Function`. `Flag` is TRUE for the line itself and FALSE
 * for the dump of the flex-log buffer that may follow an error. */
BOOL VQ_LogTest(uint32_t Module, uint32_t Level, BOOL Flag, const char *Function);

/* The log implementation of `Module`, owned by the host; null when it has none. */
const VQ_LOG_IMPL_ITEM *VQ_LogGetImplItem(uint32_t Module);

/* The name of `Module` as it stands in a line's prefix; owned by the host, never null. */
const char *VQ_LogGetModuleName(uint32_t Module);

/* Writes the calling thread's name into `Buffer` of `Size` bytes, terminated. Negative: no name, buffer untouched. */
VQ_ERR_T VQ_ThreadGetName(char *Buffer, size_t Size);

/* The tag under which the agent logs; owned by the host. */
const char *VQ_AgentLogGetTag(void);

/* Formats a message into the flex-log buffer. Negative: nothing was buffered. */
VQ_ERR_T VQ_FlexLogSetFormatData(const char *Format, ...) VQ_PRINTF_LIKE(1, 2);

/* The flex-log buffer's text; owned by the host, valid until the next VQ_FlexLogSetFormatData or VQ_FlexLogDataReset.
 */
char *VQ_FlexLogGetFormatBuff(void);

/* Empties the flex-log buffer. */
void VQ_FlexLogDataReset(void);

VQ_EXTERN_C_END

#endif

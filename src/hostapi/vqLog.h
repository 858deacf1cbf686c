/* Logging: the level test, the log implementation of a module, and the flex-log buffer, which keeps the last error. */
#ifndef VQ_LOG_H
#define VQ_LOG_H

#include <stdarg.h>

#include "vqPlatform.h"

VQ_EXTERN_C_BEGIN

/* Log module number of the advanced DNS module. */
#define VQ_LOG_MODULE_ADVANCED_DNS 62U

/* Levels. The level says who should see a line: the module also reports three successes at VQ_LOG_LEVEL_ERROR. */
#define VQ_LOG_LEVEL_NOTICE 1U
#define VQ_LOG_LEVEL_VERBOSE 2U
#define VQ_LOG_LEVEL_WARNING 3U
#define VQ_LOG_LEVEL_ERROR 4U

/* The operations that write the lines of a module. Any of them may be null; a null one is not called.
 * The format begins with "<%s%s>%s[%s:%d] ", and its first five arguments fill that: the text of the level, the name of
 * the module, the name of the thread in square brackets or nothing, the function and the line of the source. A line
 * ends in a newline. LogLevel2Str returns a text, never null; hosts return it in upper case with a colon behind it,
 * "ERROR:", so that the prefix reads "<ERROR:advanceddns>". The host keeps ownership of that text. */
typedef struct {
    void (*Log)(const char *Tag, uint32_t Level, const char *Format, ...) VQ_PRINTF_LIKE(3, 4);
    void (*LogValist)(const char *Tag, uint32_t Level, const char *Format, va_list Args);
    const char *(*LogLevel2Str)(uint32_t Level);
} VQ_LOG_IMPL_ITEM;
VQ_ASSERT_SIZE(VQ_LOG_IMPL_ITEM, 3 * sizeof(void *));

/* TRUE if a line of `Module` at `Level` is to be written for `Function`. `Flag` is TRUE for the line itself and FALSE
 * for the dump of the flex-log buffer that may follow an error. */
BOOL VQ_LogTest(uint32_t Module, uint32_t Level, BOOL Flag, const char *Function);

/* The log implementation of `Module`, or null if it has none. The host keeps ownership. */
const VQ_LOG_IMPL_ITEM *VQ_LogGetImplItem(uint32_t Module);

/* The name of `Module` for the prefix of a line; never null. The host keeps ownership. */
const char *VQ_LogGetModuleName(uint32_t Module);

/* Writes the name of the calling thread and a terminator into `Buffer` of `Size` bytes. 0 or more on success. Negative
 * if there is no name or it does not fit; then `Buffer` is not changed. */
VQ_ERR_T VQ_ThreadGetName(char *Buffer, size_t Size);

/* The tag under which the agent logs. The host keeps ownership. */
const char *VQ_AgentLogGetTag(void);

/* Formats a message into the flex-log buffer and replaces what it held. 0 or more on success; negative if nothing was
 * buffered. */
VQ_ERR_T VQ_FlexLogSetFormatData(const char *Format, ...) VQ_PRINTF_LIKE(1, 2);

/* The text in the flex-log buffer. The host keeps ownership; the text is valid until the next call of
 * VQ_FlexLogSetFormatData or VQ_FlexLogDataReset. */
char *VQ_FlexLogGetFormatBuff(void);

/* Empties the flex-log buffer. */
void VQ_FlexLogDataReset(void);

VQ_EXTERN_C_END

#endif

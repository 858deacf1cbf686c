/* The promises of vqLog.h. */
#include <stdio.h>
#include <string.h>

#include "checks.h"
#include "vqLog.h"

enum { kLongText = 3000, kNameSize = 64 };

static const char *LongText(void)
{
    static char text[kLongText];
    memset(text, 'x', sizeof(text) - 1);
    return text;
}

void CheckLogTest(Check *check)
{
    for (uint32_t level = VQ_LOG_LEVEL_NOTICE; level <= VQ_LOG_LEVEL_ERROR; ++level) {
        for (int flag = 0; flag <= 1; ++flag) {
            const BOOL answer = VQ_LogTest(VQ_LOG_MODULE_ADVANCED_DNS, level, flag != 0 ? TRUE : FALSE, "function");
            if (answer != FALSE && answer != TRUE) {
                Broken(check, "level %u: %u", level, (unsigned)answer);
            }
        }
    }
}

void CheckLogErrors(Check *check)
{
    const VQ_LOG_IMPL_ITEM *item = VQ_LogGetImplItem(VQ_LOG_MODULE_ADVANCED_DNS);
    if (VQ_LogTest(VQ_LOG_MODULE_ADVANCED_DNS, VQ_LOG_LEVEL_ERROR, TRUE, "function") == FALSE) {
        Broken(check, "VQ_LogTest answers FALSE for level 4");
    } else if (item == NULL || item->Log == NULL) {
        Broken(check, "there is no operation that writes a line");
    }
}

static void CallLogValist(const VQ_LOG_IMPL_ITEM *item, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    item->LogValist(VQ_AgentLogGetTag(), VQ_LOG_LEVEL_VERBOSE, format, arguments);
    va_end(arguments);
}

/* An operation that cannot be called ends the process: the runner says so. */
void CheckLogItem(Check *check)
{
    const VQ_LOG_IMPL_ITEM *item = VQ_LogGetImplItem(VQ_LOG_MODULE_ADVANCED_DNS);
    if (item == NULL) {
        return;
    }
    if (item->Log != NULL) {
        item->Log(VQ_AgentLogGetTag(), VQ_LOG_LEVEL_VERBOSE, "hostcheck: %s\n", "a line");
    }
    if (item->LogValist != NULL) {
        CallLogValist(item, "hostcheck: %s\n", "a line");
    }
    if (item != VQ_LogGetImplItem(VQ_LOG_MODULE_ADVANCED_DNS)) {
        Broken(check, "the second call returns another item than the first");
    }
}

void CheckLogLevelText(Check *check)
{
    const VQ_LOG_IMPL_ITEM *item = VQ_LogGetImplItem(VQ_LOG_MODULE_ADVANCED_DNS);
    for (uint32_t level = 1; item != NULL && item->LogLevel2Str != NULL && level <= VQ_LOG_LEVEL_ERROR; ++level) {
        const char *text = item->LogLevel2Str(level);
        if (text == NULL || strlen(text) > kNameSize) {
            Broken(check, "level %u: %s", level, text == NULL ? "null" : "a text of more than 64 characters");
        }
    }
}

void CheckLogLine(Check *check)
{
    const VQ_LOG_IMPL_ITEM *item = VQ_LogGetImplItem(VQ_LOG_MODULE_ADVANCED_DNS);
    if (item == NULL || item->Log == NULL) {
        Skipped(check, "there is no operation that writes a line");
        return;
    }
    item->Log(VQ_AgentLogGetTag(), VQ_LOG_LEVEL_ERROR, "<%s%s>%s[%s:%d] hostcheck: a long line %s (%d:%s) %u\n",
              "ERROR:", "advanceddns", "[name]", "CheckLogLine", 17, LongText(), -22, "reason", 4294967295U);
}

void CheckLogModuleName(Check *check)
{
    if (VQ_LogGetModuleName(VQ_LOG_MODULE_ADVANCED_DNS) == NULL) {
        Broken(check, "null");
    }
}

void CheckLogTag(Check *check)
{
    if (VQ_AgentLogGetTag() == NULL) {
        Broken(check, "null");
    }
}

void CheckLogThreadName(Check *check)
{
    char name[kNameSize];
    memset(name, '#', sizeof(name));
    const VQ_ERR_T result = VQ_ThreadGetName(name, kNameSize / 2);
    if (result >= 0 && memchr(name, '\0', kNameSize / 2) == NULL) {
        Broken(check, "result %d, and the buffer has no terminator", result);
    }
    for (int i = kNameSize / 2; i < kNameSize; ++i) {
        if (name[i] != '#') {
            Broken(check, "something is written after a buffer of %d bytes", kNameSize / 2);
        }
    }
}

void CheckLogThreadNameFits(Check *check)
{
    char name[kNameSize];
    if (VQ_ThreadGetName(name, sizeof(name)) < 0) {
        Skipped(check, "the thread has no name");
        return;
    }
    for (size_t size = 0; size <= strlen(name); ++size) {
        char buffer[kNameSize];
        memset(buffer, '#', sizeof(buffer));
        const VQ_ERR_T result = VQ_ThreadGetName(buffer, size);
        if (result >= 0 || buffer[0] != '#' || memcmp(buffer, buffer + 1, sizeof(buffer) - 1) != 0) {
            Broken(check, "\"%s\" into %zu bytes: result %d, and the buffer is%s changed", name, size, result,
                   buffer[0] == '#' ? " not" : "");
        }
    }
}

static void CheckFlexText(Check *check, VQ_ERR_T result, const char *expected)
{
    const char *text = VQ_FlexLogGetFormatBuff();
    if (result < 0 || text == NULL || strcmp(text, expected) != 0) {
        Broken(check, "result %d and \"%.200s\" instead of \"%s\"", result, text == NULL ? "null" : text, expected);
    }
}

void CheckLogFlex(Check *check)
{
    CheckFlexText(check, VQ_FlexLogSetFormatData("a long first message %d\n", 1), "a long first message 1\n");
    CheckFlexText(check, VQ_FlexLogSetFormatData("bad domain %s (%d:%u)\n", "x.example", -22, 7U),
                  "bad domain x.example (-22:7)\n");
}

void CheckLogFlexLong(Check *check)
{
    const VQ_ERR_T result = VQ_FlexLogSetFormatData("%s%s%s%s\n", LongText(), LongText(), LongText(), LongText());
    const char *text = VQ_FlexLogGetFormatBuff();
    if (result >= 0 && (text == NULL || strncmp(text, "xxx", 3) != 0)) {
        Broken(check, "12,000 characters: result %d, and the buffer does not begin with them", result);
    }
    VQ_FlexLogDataReset();
}

void CheckLogFlexReset(Check *check)
{
    VQ_FlexLogSetFormatData("message %d\n", 1);
    VQ_FlexLogDataReset();
    const char *text = VQ_FlexLogGetFormatBuff();
    if (text == NULL || *text != '\0') {
        Broken(check, "the buffer is %s", text == NULL ? "null" : "not empty");
    }
}

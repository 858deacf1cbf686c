#include "result.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

__attribute__((format(printf, 3, 0))) static void Record(Check *check, Verdict verdict, const char *format,
                                                         va_list arguments)
{
    if (check->verdict == kVerdictKept) {
        check->verdict = verdict;
        vsnprintf(check->seen, sizeof(check->seen), format, arguments);
        for (char *letter = check->seen; *letter != '\0'; ++letter) {
            if ((unsigned char)*letter < ' ') {
                *letter = ' ';
            }
        }
    }
}

void Broken(Check *check, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    Record(check, kVerdictBroken, format, arguments);
    va_end(arguments);
}

void Skipped(Check *check, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    Record(check, kVerdictSkipped, format, arguments);
    va_end(arguments);
}

void FormatResult(char text[kResultSize], int number, PromiseId promise, const Check *check)
{
    const Promise *told = &kPromises[promise];
    const bool isBroken = check->verdict == kVerdictBroken;
    const int length = snprintf(text, kResultSize, "%s %d - %s", isBroken ? "not ok" : "ok", number, told->id);
    char *end = text + length;
    const size_t room = kResultSize - (size_t)length;
    if (isBroken) {
        snprintf(end, room, "%s\n  promised:  %s:%d: %s\n  seen:      %s\n  otherwise: %s\n",
                 told->isMust ? "" : " # TODO should", told->header, told->line, told->promise, check->seen,
                 told->otherwise);
    } else if (check->verdict == kVerdictSkipped) {
        snprintf(end, room, " # SKIP %s\n", check->seen);
    } else {
        snprintf(end, room, "\n");
    }
}

bool IsPromiseSelected(PromiseId promise, const char *only)
{
    return strncmp(kPromises[promise].id, only, strlen(only)) == 0;
}

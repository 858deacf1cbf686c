/* What vq-hostcheck has seen and written: the lines of the library, and results of its own. */
#ifndef HOSTCHECK_REPORT_H
#define HOSTCHECK_REPORT_H

#include <stdbool.h>

#include "result.h"

typedef struct {
    const char *only;
    char path[128]; /* the fifo that the library writes to */
    int input;
    int results;
    int broken; /* apart from what only should be kept */
    int shouldBroken;
    int skipped;
    bool isBegun; /* the library has written something */
    bool isEnded; /* all its checks have ended */
    bool keepsConfiguration;
    bool hasMessage; /* the result for the message has come, and that for the recovery */
    bool hasRecovery;
    char line[kResultSize];
    int length;
} Report;

/* Makes the fifo in `directory`. False if that fails. */
bool OpenReport(Report *report, const char *directory);

/* Waits for lines of the library for that time at most, and writes and counts them. */
void RelayLines(Report *report, int milliseconds);

/* Writes a result of the program itself. */
void AddResult(Report *report, PromiseId promise, const Check *check);

/* Writes the plan and the summary. */
void CloseReport(Report *report);

#endif

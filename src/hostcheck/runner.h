/* Runs the checks, each in a process of its own, and writes the results as TAP. */
#ifndef HOSTCHECK_RUNNER_H
#define HOSTCHECK_RUNNER_H

#include "check.h"

/* Reads the settings from the environment and opens the file for the results. */
void PrepareRunner(void);

/* Runs every check that has a function. The host's process waits meanwhile, unchanged apart from that. */
void RunChecks(void);

/* Writes the result of one promise, if it was selected. */
void WriteResult(PromiseId promise, const Check *check);

/* Writes a line of comment. */
void WriteComment(const char *format, ...) VQ_PRINTF_LIKE(1, 2);

/* Writes the last line, when every promise was judged. */
void EndReport(void);

#endif

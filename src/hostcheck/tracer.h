/* Observes the system calls of a piece of work that write, synchronise and rename files. */
#ifndef HOSTCHECK_TRACER_H
#define HOSTCHECK_TRACER_H

#include <stdbool.h>

#include "lab.h"

typedef enum { kCallWrite, kCallSync, kCallRename } CallKind;

typedef struct {
    CallKind kind;
    char path[kLabPathSize];   /* what the descriptor leads to; for a rename the old name; empty if not known */
    char target[kLabPathSize]; /* the new name of a rename */
    bool isSynchronous;        /* a write through a descriptor that was opened for synchronous writes */
} FileCall;

enum { kCallsMax = 4096 };

typedef struct {
    int count;
    FileCall calls[kCallsMax];
    int result; /* of the work */
} FileCalls;

/* Runs `work` in a process of its own and returns its calls that succeeded, in their order. Null, and the check is
 * skipped, if the system does not let processes be observed. */
const FileCalls *ObserveCalls(Check *check, int (*work)(void));

#endif

/* What a check of a promise reports, and the settings that all checks share. */
#ifndef HOSTCHECK_CHECK_H
#define HOSTCHECK_CHECK_H

#include <stdbool.h>
#include <stdint.h>

#include "promise.h"
#include "vqPlatform.h"

enum { kSeenSize = 600 };

typedef enum { kVerdictKept, kVerdictBroken, kVerdictSkipped } Verdict;

/* The verdict about one promise; kept until Broken or Skipped is called. */
typedef struct {
    Verdict verdict;
    char seen[kSeenSize]; /* what was seen, or why nothing could be judged */
} Check;

/* Record that the promise is broken and what was seen, or that it cannot be judged and why. The first call counts. */
void Broken(Check *check, const char *format, ...) VQ_PRINTF_LIKE(2, 3);
void Skipped(Check *check, const char *format, ...) VQ_PRINTF_LIKE(2, 3);

/* Judges one promise. Runs in a process of its own, which ends afterwards: nothing needs to be released. */
typedef void (*CheckFunction)(Check *check);

/* Null for a promise that is judged elsewhere: while the host calls, or by vq-hostcheck. */
extern const CheckFunction kChecks[kPromiseCount];

/* A VPN that no box has. */
#define kUnknownVpn 4294901759U

typedef struct {
    bool hasVpn;        /* false: the first VPN that the host initialises or has a message for */
    uint32_t vpnId;     /* the VPN that the checks use; 0: the box itself */
    bool hasPlatform;   /* false: the one that the host sets */
    bool isPop;         /* the platform of the box */
    const char *probe;  /* command that prints routes and rules; null: the kernel's routes are read */
    const char *only;   /* prefix of the ids that are checked; empty: all */
    int timeoutMs;      /* time limit of one check */
    bool runsAtInit;    /* false: the checks wait for the recovery or a message */
    const char *report; /* file for the results; null: standard output */
    uint64_t boxNetns;  /* inode of the network namespace in which the host was started; 0: not known */
} Settings;

extern Settings g_settings;

#endif

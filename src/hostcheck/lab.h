/* What several checks need: places, processes, waiting. Runs in the process of a check: nothing needs to be released,
 * files in the directory of the lab apart. */
#ifndef HOSTCHECK_LAB_H
#define HOSTCHECK_LAB_H

#include <sys/types.h>

#include "check.h"
#include "system.h"

enum { kLabPathSize = 256 };

/* Makes the directory of the lab, below /etc/kavel/dnsmasq if that exists, and removes it with all that is in it. */
void OpenLab(void);
void CloseLab(void);

/* A new directory in that of the lab. Null if none can be made: the check is skipped then. */
const char *LabDirectory(Check *check);

/* The path of a file in the directory that LabDirectory has made; the text is replaced by the fourth call after it. */
const char *LabFile(const char *name);

/* Number of the open descriptors of this process. */
int CountDescriptors(void);

/* Runs a command as VQ_CmdExec does for the module: in a buffer of its own. */
int32_t Execute(const char *format, ...) VQ_PRINTF_LIKE(1, 2);

/* Waits until `path` has a number that a newline follows, for 5 s at most; 0 if it does not come. */
pid_t AwaitPidIn(const char *path);

/* Memory of this process in KiB: what it has written to, and all that is mapped. */
long WrittenKiB(void);
long MappedKiB(void);

#endif

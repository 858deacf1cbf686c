/* Shell commands and processes. */
#ifndef VQ_PROCESS_H
#define VQ_PROCESS_H

#include <sys/types.h>

#include "vqPlatform.h"

VQ_EXTERN_C_BEGIN

/* Runs `Command` with the shell and returns when that shell has exited. Processes that the command starts in the
 * background keep running; they must not inherit descriptors or standard streams of the caller. 0 or more on success. A
 * negated errno value if the shell could not be run, -5 if it exited with failure. */
int32_t VQ_CmdExec(char *Command);

/* Ends the process `Pid` and returns when it no longer exists: the module starts a new instance right after, and that
 * one needs the port. 0 or more on success. -3: there is no such process. -22: `Pid` is 0 or less. */
VQ_ERR_T VQ_KillPid(const pid_t Pid);

VQ_EXTERN_C_END

#endif

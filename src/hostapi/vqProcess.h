/* Processes. */
#ifndef VQ_PROCESS_H
#define VQ_PROCESS_H

#include <sys/types.h>

#include "vqPlatform.h"

VQ_EXTERN_C_BEGIN

/* Runs `Command` with the shell and waits for that shell. What the command leaves in the background keeps none of the
 * caller's descriptors or standard streams. Negated errno value, or -5 for a shell that ended in failure. */
int32_t VQ_CmdExec(char *Command);

/* Ends the process `Pid` and returns only when it is gone. -3 when there is no such process, -22 for 0 and less. */
VQ_ERR_T VQ_KillPid(const pid_t Pid);

VQ_EXTERN_C_END

#endif

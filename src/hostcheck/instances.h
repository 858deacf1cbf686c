/* The instances of a VPN among the processes of the box. */
#ifndef HOSTCHECK_INSTANCES_H
#define HOSTCHECK_INSTANCES_H

#include <stdbool.h>
#include <stdint.h>
#include <sys/types.h>

typedef struct {
    int dnsmasqs;  /* processes that run dnsmasq */
    int launchers; /* processes that are about to: the shell, what leads into the namespace */
    pid_t pid;     /* of one of the dnsmasqs */
    pid_t named;   /* what the pid file names; 0: none */
} Instances;

/* What is there now. */
Instances FindInstances(uint32_t vpnId);

/* Waits until there is no process of an instance, or exactly one, which the pid file names, and until this has been so
 * for a second. False, with `seen` as it is then, if that does not happen within 20 s. */
bool AwaitNone(uint32_t vpnId, Instances *seen);
bool AwaitOne(uint32_t vpnId, Instances *seen);

/* Kills all processes of an instance. */
void KillInstances(uint32_t vpnId);

/* Removes the pid file. */
void RemovePidFile(uint32_t vpnId);

#endif

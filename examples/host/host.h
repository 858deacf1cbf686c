/* What the files of this host share. Each has one role of the host interface; main.c has the order of calls. */
#ifndef HOST_H
#define HOST_H

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "vqFile.h"
#include "vqLog.h"
#include "vqMemory.h"
#include "vqNetns.h"
#include "vqProcess.h"
#include "vqRoute.h"
#include "vqRule.h"
#include "vqSafeStr.h"
#include "vqStore.h"

enum { kNameSize = 128, kTextSize = 2048, kVpnsMax = 64 };

/* A VPN of the command line. Interfaces are names with commas between them. "none" stands for no name. */
typedef struct {
    uint32_t id;           /* 0: the box itself */
    char netns[kNameSize]; /* the file of its namespace */
    char lan[kNameSize];
    char wan[kNameSize];
    uint32_t sysRoute; /* 1: the WANs carry the traffic of the box itself */
    uint32_t customer; /* 0: not known */
} Vpn;

/* platform.c: the first VPN is always VPN 0. AddVpn reads "ID NETNS LANS WANS SYSROUTE CUSTOMER", false if it cannot.
 * FindVpn may return null. */
extern Vpn g_vpns[kVpnsMax];
extern unsigned g_vpnCount;
bool AddVpn(const char *text);
const Vpn *FindVpn(uint32_t vpnId);

extern char g_firstError[kTextSize]; /* log.c: the first error since it was emptied */
extern const char *g_c2p;            /* rules.c: the CPE-to-POP interfaces of a POP */
extern const char *g_store;          /* store.c: its directory */

/* processes.c: runs a command in the namespace of a VPN. Makes the pid file name the instance, or removes it. Waits for
 * the pid file of a launch, false if none appears. */
VQ_ERR_T RunInVpn(uint32_t vpnId, const char *command);
void RepairPidFile(uint32_t vpnId);
bool AwaitPidFile(uint32_t vpnId);

#endif

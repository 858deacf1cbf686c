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

VQ_STATIC_ASSERT(VQ_HOST_INTERFACE_VERSION == 1, "this host was written for version 1 of the host interface");

enum { kNameSize = 128, kTextSize = 4096, kVpnsMax = 64 };

/* A VPN of the command line. Interfaces are names with commas between them. "none" stands for no name. */
typedef struct {
    uint32_t id;           /* 0: the box itself, which is the first */
    char netns[kNameSize]; /* the file of its namespace */
    char lan[kNameSize];
    char wan[kNameSize];
    uint32_t sysRoute; /* 1: the WANs carry the traffic of the box itself */
    uint32_t customer; /* 0: not known */
} Vpn;

extern Vpn g_vpns[kVpnsMax]; /* platform.c */
extern unsigned g_vpnCount;
bool AddVpn(const char *text);       /* false if it cannot be read as "ID NETNS LANS WANS SYSROUTE CUSTOMER" */
const Vpn *FindVpn(uint32_t vpnId);  /* null: not known */
extern char g_firstError[kTextSize]; /* log.c: the first error since it was emptied */
extern const char *g_c2p;            /* rules.c: the CPE-to-POP interfaces of a POP */
extern const char *g_store;          /* store.c: its directory */
/* processes.c: runs code of the shell in the namespace of a VPN; a status other than 0 is the result, negated. */
VQ_ERR_T RunInVpn(uint32_t vpnId, const char *format, ...) VQ_PRINTF_LIKE(2, 3);
void RepairPidFile(uint32_t vpnId); /* processes.c: makes it name the instance, or removes it */
bool AwaitPidFile(uint32_t vpnId);  /* processes.c: awaits that of a launch; false if none appears */

#endif

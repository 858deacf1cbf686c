/* What is in force in the data plane: routes and rules, as the kernel or the command of --probe shows them. */
#ifndef HOSTCHECK_PROBE_H
#define HOSTCHECK_PROBE_H

#include "check.h"

/* The number of routes of a table of a VPN to `target` with 32 bits, or, with `target` 0, of all its IPv4 routes. -1 if
 * that cannot be seen. */
int CountRoutes(uint32_t vpnId, uint32_t table, uint32_t target);

/* Whether CountRoutes asks the kernel: then a missing route may be in another data plane. */
bool AreRoutesOfKernel(void);

/* The text of all rules in force in the box and in the namespace of the VPN, as far as it can be seen; empty if nothing
 * can. With --probe: its lines that begin with "rule". Else what `nft` lists without counters. */
const char *RulesText(void);

#endif

/* What the host owes when it calls: recorded with each call, judged at the end. */
#ifndef HOSTCHECK_CALLS_H
#define HOSTCHECK_CALLS_H

#include "check.h"
#include "vqCtrlAdvancedDns.h"

typedef enum { kRoleCpe, kRolePop, kRoleOtherPlatform, kRoleInit, kRoleRecover, kRoleMessage, kRoleOther } CallRole;

/* Records the beginning of a call for a VPN, if it is for one, and its end. */
void BeginCall(CallRole role, uint32_t vpnId);
void EndCall(void);

/* Writes the results of what the calls so far have shown. What a later call breaks is written with that call; the
 * result for the recovery is written when it comes. */
void JudgeCalls(void);

/* Whether the message is the one of the kit, and the verdict about its fields. */
bool IsMessageOfKit(const VQ_CTRL_DNSMASQ_CONFIG_PB *message, bool isPop);
void JudgeMessage(Check *check, const VQ_CTRL_DNSMASQ_CONFIG_PB *message, bool isPop);

/* The VPN that a message is for. */
uint32_t VpnOfMessage(const VQ_CTRL_DNSMASQ_CONFIG_PB *message, bool isPop);

#endif

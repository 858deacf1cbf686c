/* The second phase: the agent loads the module itself, messages are applied, and the instances are looked at. */
#ifndef HOSTCHECK_APPLY_H
#define HOSTCHECK_APPLY_H

#include "host.h"
#include "message.h"
#include "options.h"
#include "report.h"

/* Applies a message with the command of --apply. False if that command fails. */
bool ApplyMessage(const Options *options, const char *directory, const MessagePlan *plan);

/* The message that disables the VPN, for the platform that was found. */
MessagePlan DisablingMessage(const Options *options);

/* Runs the phase and adds its results. */
void RunSecondPhase(const Options *options, const char *directory, Report *report);

/* Adds results that say why the phase was not run. */
void SkipSecondPhase(Report *report, const char *reason);

#endif

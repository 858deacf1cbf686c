/* What the library knows from the calls that the host makes, and the conversions that its store uses. */
#ifndef HOSTCHECK_ENTRIES_H
#define HOSTCHECK_ENTRIES_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

/* The text of a stored row of the checks begins like this; what follows is a mark and then any length of x. */
#define kRowFormat "{\"VpnId\": %u, \"Mark\": \"%s\", \"Fill\": \""

/* What the two conversions of the library have done since the process began. */
typedef struct {
    int toText;
    int toRecord;
    bool foundUnzeroed; /* a record was not zeroed before a conversion filled it */
} Conversions;

extern Conversions g_conversions;

#endif

/* Faults that can be switched on in the example host, one at a time, by the environment variable KAVEL_HOST_FAULT. They
 * stand in front of the host: its services are compiled under names with Real_ before them, and the faulty ones have
 * the names that the module imports. faults.list has the names of all faults. */
#ifndef FAULTS_H
#define FAULTS_H

#include <stdbool.h>

/* Declares the host's own service. */
#define REAL(Name) extern __typeof__(Name) Real_##Name

/* Whether this fault is switched on. */
bool HasFault(const char *name);

#endif

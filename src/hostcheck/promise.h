/* The promises of the host interface, as promises.list has them. */
#ifndef HOSTCHECK_PROMISE_H
#define HOSTCHECK_PROMISE_H

#include "promises.h"

typedef struct {
    const char *id;
    int isMust;
    const char *header;
    int line;
    const char *declaration;
    const char *promise;
    const char *otherwise;
} Promise;

extern const Promise kPromises[kPromiseCount];

#endif

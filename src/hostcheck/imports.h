/* The names that the module imports, and where the process has them. */
#ifndef HOSTCHECK_IMPORTS_H
#define HOSTCHECK_IMPORTS_H

#include <stddef.h>

typedef struct {
    const char *name;
    void (*address)(void); /* null: the process lacks it */
} Import;

extern const Import kImports[];
extern const size_t kImportCount;

#endif

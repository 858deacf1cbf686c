/* The module itself: what its file exports, imports and says about the host interface. */
#ifndef HOSTCHECK_MODULE_H
#define HOSTCHECK_MODULE_H

#include "report.h"

/* The names of exports.list and imports.list; a null pointer ends each. */
extern const char *const kExportedNames[];
extern const char *const kImportedNames[];

/* Writes the results about the file. They are skipped if it cannot be read. */
void JudgeModule(Report *report, const char *path);

#endif

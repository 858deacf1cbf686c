/* The result of one promise as lines of TAP. */
#ifndef HOSTCHECK_RESULT_H
#define HOSTCHECK_RESULT_H

#include <stddef.h>

#include "check.h"

enum { kResultSize = 2048 };

/* Writes the lines of the result with this number. */
void FormatResult(char text[kResultSize], int number, PromiseId promise, const Check *check);

/* Whether the id of the promise begins with `only`. */
bool IsPromiseSelected(PromiseId promise, const char *only);

#endif

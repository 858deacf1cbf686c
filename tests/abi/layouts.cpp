/* The same layouts as C++20. */
#include "layouts.c" // NOLINT(bugprone-suspicious-include): the point of this file

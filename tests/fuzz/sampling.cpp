#include "sampling.h"

// A fuzzer spends its time on more inputs instead.
const bool fuzz::kEveryInput = false;

#include "sampling.h"

// A fuzzer's time goes into inputs.
const bool fuzz::kEveryInput = false;

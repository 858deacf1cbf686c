// The target for the test of the seed driver: it fails for inputs that begin with an exclamation mark.
#include "fuzz.h"

int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size)
{
    fuzz::Require(Size == 0 || Data[0] != '!', "an exclamation mark");
    return 0;
}

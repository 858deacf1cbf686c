// For targets whose input is one packed message.
#include "wire_mutator.h"

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t *Data, size_t Size, size_t MaxSize, unsigned Seed)
{
    fuzz::Random Dice(Seed);
    return fuzz::PutBack(fuzz::MutateWire({Data, Size}, Dice), Data, MaxSize);
}

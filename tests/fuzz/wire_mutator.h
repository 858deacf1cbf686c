// Changes a packed protobuf message so that it remains valid: changing single bytes nearly always breaks a length.
#ifndef FUZZ_WIRE_MUTATOR_H
#define FUZZ_WIRE_MUTATOR_H

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

#include "fuzz.h"

// The fuzzer's own mutations, in place. Returns the new size, at most `MaxSize`.
extern "C" size_t LLVMFuzzerMutate(uint8_t *Data, size_t Size, size_t MaxSize);

namespace fuzz {

using Random = std::minstd_rand;

// A changed copy, which can be longer than the original by any length. Data that is no message is changed byte by byte.
std::vector<uint8_t> MutateWire(Bytes Message, Random &Dice);

// A copy changed by the fuzzer's own mutations, at most `Growth` bytes longer.
std::vector<uint8_t> MutateBytes(Bytes Data, size_t Growth);

// Copies as much of `Changed` to `Data` as fits. Returns its size.
size_t PutBack(const std::vector<uint8_t> &Changed, uint8_t *Data, size_t MaxSize);

} // namespace fuzz

#endif

// Changes a packed protobuf message so that it stays one: plain changes of bytes nearly always break a length.
#ifndef FUZZ_WIRE_MUTATOR_H
#define FUZZ_WIRE_MUTATOR_H

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

#include "fuzz.h"

// The fuzzer's own changes, in place; the new size, at most `MaxSize`.
extern "C" size_t LLVMFuzzerMutate(uint8_t *Data, size_t Size, size_t MaxSize);

namespace fuzz {

using Random = std::minstd_rand;

// A changed copy, which may be longer than the original by any length. What is no message is changed byte by byte.
std::vector<uint8_t> MutateWire(Bytes Message, Random &Dice);

// A changed copy by the fuzzer's own means, at most `Growth` bytes longer.
std::vector<uint8_t> MutateBytes(Bytes Data, size_t Growth);

// Puts as much of `Changed` as fits into `Data`, and tells its size.
size_t PutBack(const std::vector<uint8_t> &Changed, uint8_t *Data, size_t MaxSize);

} // namespace fuzz

#endif

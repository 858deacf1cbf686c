// For the target whose input is a piece size, followed by frames of packed requests.
#include <array>

#include "frame.h"
#include "wire_mutator.h"

namespace {

using kavel::control::kFrameHeaderSize;

// Changes the request in the first frame, and keeps everything after it. Empty if there is no complete frame.
std::vector<uint8_t> ChangeFirstFrame(fuzz::Bytes Stream, fuzz::Random &Dice)
{
    if (Stream.size() < kFrameHeaderSize) {
        return {};
    }
    const size_t Length = kavel::control::DecodeFrameLength(Stream.data());
    if (Length > Stream.size() - kFrameHeaderSize) {
        return {};
    }
    const std::vector<uint8_t> Request = fuzz::MutateWire(Stream.subspan(kFrameHeaderSize, Length), Dice);
    const std::array<uint8_t, kFrameHeaderSize> Header = kavel::control::EncodeFrameLength(Request.size());
    const fuzz::Bytes Rest = Stream.subspan(kFrameHeaderSize + Length);
    std::vector<uint8_t> Out(Header.begin(), Header.end());
    Out.insert(Out.end(), Request.begin(), Request.end());
    Out.insert(Out.end(), Rest.begin(), Rest.end());
    return Out;
}

} // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t *Data, size_t Size, size_t MaxSize, unsigned Seed)
{
    fuzz::Random Dice(Seed);
    std::vector<uint8_t> Changed;
    constexpr unsigned OneInPlain = 4;
    if (Size > 0 && Dice() % OneInPlain != 0) {
        Changed = ChangeFirstFrame({Data + 1, Size - 1}, Dice);
    }
    if (Changed.empty()) {
        return LLVMFuzzerMutate(Data, Size, MaxSize);
    }
    Changed.insert(Changed.begin(), Data[0]);
    return fuzz::PutBack(Changed, Data, MaxSize);
}

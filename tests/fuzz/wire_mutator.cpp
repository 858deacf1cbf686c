#include "wire_mutator.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace fuzz {

namespace {

constexpr unsigned kTypeBits = 3;
constexpr uint64_t kVarint = 0;
constexpr uint64_t kLengthDelimited = 2;

struct Field {
    uint64_t Key; // number and type
    uint64_t Number = 0;
    std::vector<uint8_t> Content = {};

    [[nodiscard]] bool HasContent() const { return (Key & 7U) == kLengthDelimited; }
};

using Fields = std::vector<Field>;

std::optional<uint64_t> TakeVarint(Bytes &Left)
{
    constexpr unsigned Bits = 7;
    uint64_t Out = 0;
    for (unsigned Shift = 0; Shift < 64 && !Left.empty(); Shift += Bits) {
        const uint8_t Each = Left.front();
        Left = Left.subspan(1);
        Out |= uint64_t{Each & 0x7fU} << Shift;
        if (Each < 0x80) {
            return Out;
        }
    }
    return std::nullopt;
}

void PutVarint(std::vector<uint8_t> &Out, uint64_t Value)
{
    for (; Value >= 0x80; Value >>= 7U) {
        Out.push_back(static_cast<uint8_t>(Value | 0x80U));
    }
    Out.push_back(static_cast<uint8_t>(Value));
}

std::optional<Field> TakeField(Bytes &Left)
{
    const std::optional<uint64_t> Key = TakeVarint(Left);
    const std::optional<uint64_t> Number = TakeVarint(Left);
    if (!Key.has_value() || !Number.has_value() || *Key < 8) {
        return std::nullopt;
    }
    Field Out{*Key, *Number};
    if (!Out.HasContent()) {
        return (*Key & 7U) == kVarint ? std::optional(Out) : std::nullopt;
    }
    if (*Number > Left.size()) {
        return std::nullopt;
    }
    const Bytes Content = Left.first(static_cast<size_t>(*Number));
    Out.Content.assign(Content.begin(), Content.end());
    Left = Left.subspan(Content.size());
    return Out;
}

std::optional<Fields> Parse(Bytes Left)
{
    Fields Out;
    while (!Left.empty()) {
        std::optional<Field> Next = TakeField(Left);
        if (!Next.has_value()) {
            return std::nullopt;
        }
        Out.push_back(std::move(*Next));
    }
    return Out;
}

std::vector<uint8_t> Pack(const Fields &Message)
{
    std::vector<uint8_t> Out;
    for (const Field &Each : Message) {
        PutVarint(Out, Each.Key);
        PutVarint(Out, Each.HasContent() ? Each.Content.size() : Each.Number);
        Out.insert(Out.end(), Each.Content.begin(), Each.Content.end());
    }
    return Out;
}

size_t UpTo(Random &Dice, size_t Last)
{
    return std::uniform_int_distribution<size_t>(0, Last)(Dice);
}

void ChangeNumber(Field &Changed, Random &Dice)
{
    constexpr uint64_t Corners[] = {0,   1,     2,     8,     9,          128,        255,
                                    256, 65535, 65536, 65537, 0x7fffffff, 0x80000000, 0xffffffff};
    if (UpTo(Dice, 1) == 0) {
        Changed.Number = Corners[UpTo(Dice, std::size(Corners) - 1)];
    } else {
        Changed.Number = static_cast<uint32_t>(Changed.Number ^ (uint64_t{1} << UpTo(Dice, 31)));
    }
}

void ChangeValue(Field &Changed, Random &Dice)
{
    constexpr size_t Growth = 16;
    if (!Changed.HasContent()) {
        ChangeNumber(Changed, Dice);
    } else if (UpTo(Dice, 2) == 0) {
        Changed.Content = MutateBytes(Changed.Content, Growth);
    } else {
        Changed.Content = MutateWire(Changed.Content, Dice);
    }
}

// Usually one copy, sometimes many, so that limits of lists are reached.
void Repeat(Fields &Message, size_t Which, Random &Dice)
{
    constexpr size_t Many = 160;
    const size_t Copies = UpTo(Dice, 7) == 0 ? UpTo(Dice, Many) : 1;
    const Field Original = Message[Which];
    Message.insert(Message.begin() + static_cast<std::ptrdiff_t>(UpTo(Dice, Message.size())), Copies, Original);
}

void ChangeOne(Fields &Message, Random &Dice)
{
    const size_t Which = UpTo(Dice, Message.size() - 1);
    switch (UpTo(Dice, 7)) {
    case 0:
        Message.erase(Message.begin() + static_cast<std::ptrdiff_t>(Which));
        return;
    case 1:
        Repeat(Message, Which, Dice);
        return;
    case 2:
        std::swap(Message[Which], Message[UpTo(Dice, Message.size() - 1)]);
        return;
    case 3:
        Message[Which].Key = ((1 + UpTo(Dice, 9)) << kTypeBits) | (Message[Which].Key & 7U);
        return;
    default:
        ChangeValue(Message[Which], Dice);
    }
}

} // namespace

std::vector<uint8_t> MutateBytes(Bytes Data, size_t Growth)
{
    std::vector<uint8_t> Out(Data.begin(), Data.end());
    Out.resize(Data.size() + Growth);
    Out.resize(LLVMFuzzerMutate(Out.data(), Data.size(), Out.size()));
    return Out;
}

std::vector<uint8_t> MutateWire(Bytes Message, Random &Dice)
{
    constexpr size_t Growth = 64;
    std::optional<Fields> Parsed = Parse(Message);
    if (!Parsed.has_value() || Parsed->empty() || UpTo(Dice, 15) == 0) {
        return MutateBytes(Message, Growth);
    }
    ChangeOne(*Parsed, Dice);
    return Pack(*Parsed);
}

size_t PutBack(const std::vector<uint8_t> &Changed, uint8_t *Data, size_t MaxSize)
{
    const size_t Size = std::min(Changed.size(), MaxSize);
    std::copy_n(Changed.begin(), Size, Data);
    return Size;
}

} // namespace fuzz

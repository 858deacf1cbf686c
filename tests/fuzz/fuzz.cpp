#include "fuzz.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "sampling.h"

namespace fuzz {

namespace {

std::string Joined(const std::vector<std::string> &Lines)
{
    std::string Out;
    for (const std::string &Each : Lines) {
        Out.append("  ").append(Each).append("\n");
    }
    return Out;
}

} // namespace

void Fail(const std::string &What)
{
    static_cast<void>(std::fprintf(stderr, "FAILED: %s\n", What.c_str()));
    std::abort();
}

void RequireNone(const char *What, const std::vector<std::string> &Problems)
{
    if (!Problems.empty()) {
        Fail(std::string(What) + ":\n" + Joined(Problems));
    }
}

void RequireSame(const char *What, const std::vector<std::string> &Is, const std::vector<std::string> &Expected)
{
    if (Is != Expected) {
        Fail(std::string(What) + " is\n" + Joined(Is) + "instead of\n" + Joined(Expected));
    }
}

void RequireSame(const char *What, int64_t Is, int64_t Expected)
{
    if (Is != Expected) {
        Fail(std::string(What) + " is " + std::to_string(Is) + " instead of " + std::to_string(Expected));
    }
}

uint32_t Digest(Bytes Data)
{
    constexpr uint32_t Basis = 2166136261U;
    constexpr uint32_t Prime = 16777619U;
    uint32_t Out = Basis;
    for (const uint8_t Each : Data) {
        Out = (Out ^ Each) * Prime;
    }
    return Out ^ (Out >> 15U);
}

bool IsSampled(Bytes Data, uint32_t OneIn)
{
    return kEveryInput || Digest(Data) % OneIn == 0;
}

uint8_t Input::Byte()
{
    if (m_Left.empty()) {
        return 0;
    }
    const uint8_t Out = m_Left.front();
    m_Left = m_Left.subspan(1);
    return Out;
}

uint32_t Input::Word()
{
    constexpr int BytesOfWord = 4;
    uint32_t Out = 0;
    for (int Each = 0; Each < BytesOfWord; ++Each) {
        Out = (Out << 8U) | Byte();
    }
    return Out;
}

std::string Input::Take(size_t Length)
{
    const Bytes Front = m_Left.first(std::min(Length, m_Left.size()));
    m_Left = m_Left.subspan(Front.size());
    return {Front.begin(), Front.end()};
}

std::string Input::Text(size_t Longest)
{
    const size_t High = Byte();
    const size_t Length = (High << 8U) | Byte();
    return Take(Length % (Longest + 1));
}

std::vector<std::string> Lines(std::string_view Text)
{
    std::vector<std::string> Out;
    while (!Text.empty()) {
        const size_t End = Text.find('\n');
        if (End == std::string_view::npos) {
            Out.push_back(std::string(Text) + "<no line feed>");
            break;
        }
        Out.emplace_back(Text.substr(0, End));
        Text.remove_prefix(End + 1);
    }
    return Out;
}

bool IsOneLine(std::string_view Text)
{
    unsigned char Before = 0;
    for (const char Each : Text) {
        const auto Byte = static_cast<unsigned char>(Each);
        const bool IsEncodedControl = Before == 0xc2 && Byte >= 0x80 && Byte < 0xa0;
        if (Byte < ' ' || Byte == 0x7f || IsEncodedControl) {
            return false;
        }
        Before = Byte;
    }
    return true;
}

} // namespace fuzz

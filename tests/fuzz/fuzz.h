// What the fuzz targets share: how a broken property is told, and how an input is taken apart.
#ifndef FUZZ_H
#define FUZZ_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// Each target defines this one; 0 always.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size);

namespace fuzz {

using Bytes = std::span<const uint8_t>;

// Prints what is wrong and ends the process, so that the fuzzer keeps the input.
[[noreturn]] void Fail(const std::string &What);

inline void Require(bool Holds, const char *What)
{
    if (!Holds) {
        Fail(What);
    }
}

void RequireNone(const char *What, const std::vector<std::string> &Problems);
void RequireSame(const char *What, const std::vector<std::string> &Is, const std::vector<std::string> &Expected);
void RequireSame(const char *What, int64_t Is, int64_t Expected);

// For checks that cost too much to be made for every input: true for one in `OneIn`, always the same ones. The named
// seeds are few and get every check.
bool IsSampled(Bytes Data, uint32_t OneIn);

// A number that looks random and depends on the input alone.
uint32_t Digest(Bytes Data);

// Takes values from the front of an input. Where it ends, everything is zero or empty.
class Input {
  public:
    explicit Input(Bytes Data) : m_Left(Data) {}

    [[nodiscard]] bool IsEmpty() const { return m_Left.empty(); }
    uint8_t Byte();
    // Four bytes, the first the most significant.
    uint32_t Word();
    // From 0 to `Last`.
    uint32_t UpTo(uint32_t Last) { return Word() % (Last + 1); }
    // A length of two bytes and so many characters, `Longest` at most.
    std::string Text(size_t Longest);
    std::string Rest() { return Take(m_Left.size()); }

  private:
    std::string Take(size_t Length);

    Bytes m_Left;
};

// The lines of a text; one that lacks its line feed at the end is kept with a mark, so that it equals no other.
std::vector<std::string> Lines(std::string_view Text);

// Whether a text has no control characters: it stays on its line and steers no terminal.
bool IsOneLine(std::string_view Text);

} // namespace fuzz

#endif

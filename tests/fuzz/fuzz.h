// Shared by the fuzz targets: reporting a violated property, and reading values from an input.
#ifndef FUZZ_H
#define FUZZ_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// Each target defines this function; it always returns 0.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size);

namespace fuzz {

using Bytes = std::span<const uint8_t>;

// Prints `What` and aborts the process, so that the fuzzer keeps the input.
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

// For checks that are too slow for every input: true for one input in `OneIn`, always the same ones. A run over the
// named seeds makes every check.
bool IsSampled(Bytes Data, uint32_t OneIn);

// A hash of the input.
uint32_t Digest(Bytes Data);

// Reads values from the front of an input. After its end all values are zero or empty.
class Input {
  public:
    explicit Input(Bytes Data) : m_Left(Data) {}

    [[nodiscard]] bool IsEmpty() const { return m_Left.empty(); }
    uint8_t Byte();
    // Four bytes, big-endian.
    uint32_t Word();
    // From 0 to `Last`.
    uint32_t UpTo(uint32_t Last) { return Word() % (Last + 1); }
    // A length of two bytes, then as many characters; at most `Longest`.
    std::string Text(size_t Longest);
    std::string Rest() { return Take(m_Left.size()); }

  private:
    std::string Take(size_t Length);

    Bytes m_Left;
};

// The lines of a text. A last line without a line feed gets a mark, so that it differs from every other line.
std::vector<std::string> Lines(std::string_view Text);

// Whether a text has no control characters, and so cannot break a line or control a terminal.
bool IsOneLine(std::string_view Text);

} // namespace fuzz

#endif

// The emulator that runs this program, if its processor is emulated.
#ifndef TESTS_EMULATOR_H
#define TESTS_EMULATOR_H

#include <bit>
#include <cstdlib>

namespace kavel {

// The path of the emulator, from KAVEL_EMULATOR; null if the machine runs this program itself. A program of the same
// processor is executed as: emulator, path, arguments.
inline const char *Emulator()
{
    const char *path = std::getenv("KAVEL_EMULATOR");
    return path != nullptr && *path != '\0' ? path : nullptr;
}

} // namespace kavel

// Ends a test that needs something of the kernel which emulators do not pass on. `Reason` names it, in one line.
#define KAVEL_SKIP_IF_EMULATED(Reason)            \
    if (kavel::Emulator() != nullptr) {           \
        GTEST_SKIP() << "emulated: " << (Reason); \
    }                                             \
    static_assert(true)

// The same for a test that is skipped only where the emulated processor has the other byte order, as on s390x.
#define KAVEL_SKIP_IF_EMULATED_BIG_ENDIAN(Reason)                                  \
    if (kavel::Emulator() != nullptr && std::endian::native == std::endian::big) { \
        GTEST_SKIP() << "emulated: " << (Reason);                                  \
    }                                                                              \
    static_assert(true)

#endif

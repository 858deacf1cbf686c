// Zeros for large objects. The module fills its record of 17 MB with zeros for each message, which writes every page of
// it, and an ordinary message uses less than 1 MB. It calls the C library by name, so it gets this function instead;
// every other library of the process gets it too.
#include <cstddef>
#include <cstdint>

#include "services/memory_malloc.h"

extern "C" {

// The C library's own function, under the name that compilers use for checked calls.
// NOLINTNEXTLINE(bugprone-reserved-identifier,readability-identifier-naming): the C library's name
void *__memset_chk(void *target, int value, std::size_t size, std::size_t targetSize) noexcept;

// The C library's header declares it with other parameter names, and only where that header is included.
// NOLINTNEXTLINE(readability-redundant-declaration,readability-inconsistent-declaration-parameter-name)
void *memset(void *target, int value, std::size_t size) noexcept;

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
void *memset(void *target, int value, std::size_t size) noexcept
{
    const bool isZeroed = value == 0 && kavel::agent::ZeroInFreshPages(target, size);
    return isZeroed ? target : __memset_chk(target, value, size, SIZE_MAX);
}
}

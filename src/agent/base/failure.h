// Failures between the agent's C++ and the C functions that it gives the module.
#ifndef KAVEL_AGENT_FAILURE_H
#define KAVEL_AGENT_FAILURE_H

#include <cerrno>
#include <cstdint>
#include <new>
#include <string>
#include <system_error>

namespace kavel::agent {

// The errno of this moment as a result.
inline int LastFailure()
{
    return -errno;
}

[[noreturn]] inline void ThrowLastFailure(const std::string &what)
{
    throw std::system_error(errno, std::system_category(), what);
}

// Runs `body` where no exception may leave, and gives its result or the negated errno of what it threw.
template <typename Body>
std::int32_t WithoutExceptions(Body body) noexcept
{
    try {
        return body();
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    } catch (const std::system_error &failure) {
        return -failure.code().value();
    } catch (...) {
        return -EIO;
    }
}

} // namespace kavel::agent

#endif

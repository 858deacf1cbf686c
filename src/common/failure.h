// Failures of the operating system. Inside the programs they are exceptions: a std::system_error with the errno and a
// text that names what failed. A negated errno exists only in the results of the C functions (see ResultOf) and in
// answers.
#ifndef KAVEL_COMMON_FAILURE_H
#define KAVEL_COMMON_FAILURE_H

#include <cerrno>
#include <cstdint>
#include <exception>
#include <new>
#include <string>
#include <system_error>
#include <utility>

namespace kavel {

// A std::system_error whose text does not contain that of the errno.
class Failure : public std::system_error {
  public:
    // `error` is a positive errno. If `text` is empty, the errno's text takes its place.
    Failure(int error, std::string text)
        : system_error(error, std::system_category()), text_(text.empty() ? code().message() : std::move(text))
    {
    }

    [[nodiscard]] const char *what() const noexcept override { return text_.c_str(); }

  private:
    std::string text_;
};

// Throws std::system_error for `error`, a positive errno.
[[noreturn]] inline void ThrowErrno(int error, const std::string &what)
{
    throw std::system_error(error, std::system_category(), what);
}

// Throws std::system_error for the errno of the call that has just failed.
[[noreturn]] inline void ThrowLastErrno(const std::string &what)
{
    ThrowErrno(errno, what);
}

// The negated errno that stands for the exception that is being handled. Call it inside a catch block only.
[[nodiscard]] inline std::int32_t ResultOfCurrentException() noexcept
{
    try {
        throw;
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    } catch (const std::system_error &failure) {
        return -failure.code().value();
    } catch (...) {
        return -EIO;
    }
}

// Runs `body` where no exception may leave. Returns its result, or the negated errno of what it threw.
template <typename Body>
[[nodiscard]] std::int32_t ResultOf(Body body) noexcept
{
    try {
        return body();
    } catch (...) {
        return ResultOfCurrentException();
    }
}

} // namespace kavel

#endif

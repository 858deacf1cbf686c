#include "failure.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <new>
#include <stdexcept>

#include "scratch.h"

namespace kavel::agent {
namespace {

TEST(ThrownError, NamesWhatFailedAndWhy)
{
    EXPECT_EQ(FailureOf([] { ThrowErrno(ENOENT, "/some/file"); }),
              (ThrownError{ENOENT, "/some/file: No such file or directory"}));
    EXPECT_EQ(FailureOf([] {
                  errno = EACCES;
                  ThrowLastErrno("/some/file");
              }),
              (ThrownError{EACCES, "/some/file: Permission denied"}));
}

TEST(ThrownError, TheResultOfACFunctionIsANegatedErrno)
{
    EXPECT_EQ(ResultOf([] { return 7; }), 7);
    EXPECT_EQ(ResultOf([]() -> int { ThrowErrno(ENOENT, "file"); }), -ENOENT);
    EXPECT_EQ(ResultOf([]() -> int { throw std::bad_alloc(); }), -ENOMEM);
    EXPECT_EQ(ResultOf([]() -> int { throw std::runtime_error("text"); }), -EIO);
    EXPECT_EQ(ResultOf([]() -> int { throw 7; }), -EIO); // NOLINT(misc-throw-by-value-catch-by-reference)
}

} // namespace
} // namespace kavel::agent

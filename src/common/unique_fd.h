// A file descriptor that is closed by its owner.
#ifndef KAVEL_COMMON_UNIQUE_FD_H
#define KAVEL_COMMON_UNIQUE_FD_H

#include <unistd.h>

#include <utility>

namespace kavel {

class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd &&other) noexcept : fd_(other.Release()) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept
    {
        if (this != &other) {
            Close();
            fd_ = other.Release();
        }
        return *this;
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    ~UniqueFd() { Close(); }

    [[nodiscard]] int Get() const { return fd_; }
    [[nodiscard]] int Release() { return std::exchange(fd_, -1); }
    explicit operator bool() const { return fd_ >= 0; }

  private:
    void Close() const
    {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }

    int fd_ = -1;
};

} // namespace kavel

#endif

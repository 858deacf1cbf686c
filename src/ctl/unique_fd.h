#ifndef KAVEL_CTL_UNIQUE_FD_H
#define KAVEL_CTL_UNIQUE_FD_H

#include <unistd.h>
#include <utility>

namespace kavel::ctl {

// Owns a file descriptor; a negative one stands for none.
class UniqueFd {
  public:
    explicit UniqueFd(int fd = -1) noexcept : fd_(fd) {}
    UniqueFd(UniqueFd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    ~UniqueFd()
    {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }

    [[nodiscard]] int Get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }

  private:
    int fd_;
};

} // namespace kavel::ctl

#endif

#include "progress.h"

#include <ostream>
#include <string>

namespace kavel::ctl {

void Progress::Show(std::size_t current)
{
    if (!isShown_) {
        return;
    }
    Clear();
    const std::string text = std::to_string(current) + "/" + std::to_string(total_);
    err_ << text << std::flush;
    width_ = text.size();
}

void Progress::Clear()
{
    if (width_ != 0) {
        err_ << '\r' << std::string(width_, ' ') << '\r' << std::flush;
        width_ = 0;
    }
}

} // namespace kavel::ctl

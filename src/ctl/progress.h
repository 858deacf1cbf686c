// How far a command over many files is, on a terminal.
#ifndef KAVEL_CTL_PROGRESS_H
#define KAVEL_CTL_PROGRESS_H

#include <cstddef>
#include <iosfwd>

namespace kavel::ctl {

// Writes "12/300" into the last line of a terminal, over what it wrote there before. The line is empty again when the
// object is gone.
class Progress {
  public:
    // Below this number of files nothing is shown.
    static constexpr std::size_t kFilesMin = 6;

    // Writes to `err`, which must outlive it, only if it is a terminal.
    Progress(std::ostream &err, bool isTerminal, std::size_t total)
        : err_(err), isShown_(isTerminal && total >= kFilesMin), total_(total)
    {
    }
    ~Progress() { Clear(); }
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    // `current` counts from 1.
    void Show(std::size_t current);
    // Empties the line, for other output.
    void Clear();

  private:
    std::ostream &err_;
    bool isShown_;
    std::size_t total_;
    std::size_t width_ = 0; // of what stands in the line
};

} // namespace kavel::ctl

#endif

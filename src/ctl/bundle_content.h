// The files that go into a bundle, in memory and bounded.
#ifndef KAVEL_CTL_BUNDLE_CONTENT_H
#define KAVEL_CTL_BUNDLE_CONTENT_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kavel::ctl {

struct BundleFile {
    std::string name; // relative: "status.json"
    std::string content;
    bool isPublic = false; // it says nothing about this box: it is not redacted
    bool isOpaque = false; // it cannot be redacted
};

class BundleContent {
  public:
    static constexpr std::size_t kFileMax = std::size_t{4} * 1024 * 1024;
    static constexpr std::size_t kOpaqueMax = std::size_t{16} * 1024 * 1024;
    static constexpr std::size_t kTotalMax = std::size_t{64} * 1024 * 1024;

    // Adds a file. What is beyond its limit is cut, which is noted. A file for which there is no room is noted alone.
    void Add(BundleFile file);
    // Something that could not be collected, on one line.
    void Note(std::string_view subject, std::string_view text);

    [[nodiscard]] const std::vector<std::string> &Notes() const { return notes_; }
    // The files, and the notes as the last one.
    [[nodiscard]] std::vector<BundleFile> Take();

  private:
    std::vector<BundleFile> files_;
    std::vector<std::string> notes_;
    std::size_t size_ = 0;
};

} // namespace kavel::ctl

#endif

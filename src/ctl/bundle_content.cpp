#include "bundle_content.h"

#include <algorithm>
#include <utility>

#include "printable.h"

namespace kavel::ctl {

void BundleContent::Add(BundleFile file)
{
    const std::size_t most = file.isOpaque ? kOpaqueMax : kFileMax;
    if (file.content.size() > most) {
        file.content.resize(most);
        Note(file.name, "cut after " + std::to_string(most) + " bytes");
    }
    if (file.content.size() > kTotalMax - size_) {
        Note(file.name, "left out: the bundle is full");
        return;
    }
    size_ += file.content.size();
    files_.push_back(std::move(file));
}

void BundleContent::Note(std::string_view subject, std::string_view text)
{
    notes_.push_back(Printable(subject) + ": " + Printable(text));
}

std::vector<BundleFile> BundleContent::Take()
{
    std::string text;
    for (const std::string &note : notes_) {
        text += note + '\n';
    }
    files_.push_back({"notes.txt", text.empty() ? "everything was collected\n" : std::move(text)});
    return std::exchange(files_, {});
}

} // namespace kavel::ctl

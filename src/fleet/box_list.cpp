#include "box_list.h"

#include <cstddef>
#include <unordered_map>
#include <utility>

#include "files.h"
#include "input_error.h"
#include "json_text.h"
#include "printable.h"
#include "topics.h"

namespace kavel::fleet {

namespace {

constexpr std::size_t kErrorsMax = 10;

std::string_view WithoutBlanks(std::string_view line)
{
    constexpr std::string_view kBlanks = " \t\r";
    line = line.substr(0, line.find('#'));
    const std::size_t first = line.find_first_not_of(kBlanks);
    return first == std::string_view::npos ? "" : line.substr(first, line.find_last_not_of(kBlanks) + 1 - first);
}

std::string BadNameText(std::string_view name)
{
    return "\"" + Shortened(Printable(name)) + "\" is not the name of a box";
}

class ErrorList {
  public:
    void Add(std::size_t line, const std::string &error)
    {
        if (++count_ <= kErrorsMax) {
            text_ += text_.empty() ? "line " : "; line ";
            text_.append(std::to_string(line)).append(": ").append(error);
        }
    }
    void ThrowIfAny() const
    {
        if (count_ > kErrorsMax) {
            throw InputError(text_ + "; and " + std::to_string(count_ - kErrorsMax) + " more");
        }
        if (count_ > 0) {
            throw InputError(text_);
        }
    }

  private:
    std::size_t count_ = 0;
    std::string text_;
};

std::vector<std::string> NamedBoxes(const std::vector<std::string> &boxes)
{
    std::unordered_map<std::string, std::size_t> seen;
    for (const std::string &box : boxes) {
        if (!broker::IsBoxName(box)) {
            throw InputError("--box: " + BadNameText(box));
        }
        if (!seen.emplace(box, 0).second) {
            throw InputError("--box: \"" + box + "\" is named twice");
        }
    }
    return boxes;
}

} // namespace

std::vector<std::string> ParseBoxList(std::string_view text)
{
    std::vector<std::string> boxes;
    std::unordered_map<std::string, std::size_t> lines;
    ErrorList errors;
    for (std::size_t number = 1; !text.empty(); ++number) {
        const std::size_t end = text.find('\n');
        const std::string name(WithoutBlanks(text.substr(0, end)));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        if (name.empty()) {
            continue;
        }
        if (!broker::IsBoxName(name)) {
            errors.Add(number, BadNameText(name));
        } else if (const auto [first, isNew] = lines.emplace(name, number); !isNew) {
            errors.Add(number, "\"" + name + "\" is in line " + std::to_string(first->second) + ", too");
        } else {
            boxes.push_back(name);
        }
    }
    errors.ThrowIfAny();
    if (boxes.empty()) {
        throw InputError("names no box");
    }
    return boxes;
}

std::vector<std::string> SelectedBoxes(const BoxSelection &selection)
{
    if (selection.list.empty()) {
        return NamedBoxes(selection.boxes);
    }
    if (!selection.boxes.empty()) {
        throw InputError("--box: cannot be given with --boxes");
    }
    return ctl::WithFileName(ctl::DisplayName(selection.list),
                             [&] { return ParseBoxList(ctl::ReadInput(selection.list)); });
}

} // namespace kavel::fleet

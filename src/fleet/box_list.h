// Lists of boxes.
#ifndef KAVEL_FLEET_BOX_LIST_H
#define KAVEL_FLEET_BOX_LIST_H

#include <string>
#include <string_view>
#include <vector>

namespace kavel::fleet {

// The boxes of a list: one in each line; '#' begins a comment, and blanks around a name and empty lines count for
// nothing. Throws InputError with all errors, each with the number of its line, with "; " between them, at most ten: a
// bad name, a box that was named before. A list without a box is refused, too.
[[nodiscard]] std::vector<std::string> ParseBoxList(std::string_view text);

// The boxes that a command is for, in the order in which they are named.
struct BoxSelection {
    std::vector<std::string> boxes; // named one by one: --box
    std::string list;               // a file with a list, or "-" for standard input: --boxes; empty: none
};

// Throws InputError: a bad name, a box that is named twice, both kinds at once, a bad list.
[[nodiscard]] std::vector<std::string> SelectedBoxes(const BoxSelection &selection);

} // namespace kavel::fleet

#endif

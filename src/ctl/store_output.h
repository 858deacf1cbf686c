// What is stored, for people.
#ifndef KAVEL_CTL_STORE_OUTPUT_H
#define KAVEL_CTL_STORE_OUTPUT_H

#include <span>
#include <string>
#include <string_view>

#include "control.pb-c.h"

namespace kavel::ctl {

using StoredList = std::span<const Kavel__StoredRecord *const>;

// Aligned columns, and below them why records cannot be read.
std::string StoredTable(StoredList records);

// A stored text, laid out when it is JSON, and else as it stands but for what could steer a terminal.
std::string StoredText(std::string_view text);

} // namespace kavel::ctl

#endif

// The output of `vqctl store`, for people.
#ifndef KAVEL_CTL_STORE_OUTPUT_H
#define KAVEL_CTL_STORE_OUTPUT_H

#include <span>
#include <string>
#include <string_view>

#include "control.pb-c.h"
#include "json_reader.h"

namespace kavel::ctl {

using StoredList = std::span<const Kavel__StoredRecord *const>;

// A row for each record. Below the rows, a line for each record that cannot be read, with the reason.
std::string StoredTable(StoredList records);

// An array with an object for each record: `vpn`, `bytes`, and either `problem`, or `enable` and the counts.
[[nodiscard]] JsonPtr StoredJson(StoredList records);

// Adds a stored text to a document: as `record` if it is JSON, or else as `text`.
void AddStoredText(json_object *document, std::string_view text);

// A stored text: indented if it is JSON, and with what must not reach a terminal escaped. Otherwise it is shown as it
// is, but with those characters replaced by '?'.
std::string StoredText(std::string_view text);

} // namespace kavel::ctl

#endif

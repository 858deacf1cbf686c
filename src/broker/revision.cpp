#include "revision.h"

#include "number.h"

namespace kavel::broker {

std::optional<Revision> ParseRevision(std::string_view text)
{
    if (text.starts_with('0')) {
        return std::nullopt;
    }
    const std::optional<Revision> revision = WholeNumber<Revision>(text);
    return revision && *revision <= kRevisionMax ? revision : std::nullopt;
}

} // namespace kavel::broker

#include "revision.h"

#include "numeric_revision.h"

namespace kavel::broker {

std::optional<Revision> ParseRevision(std::string_view text)
{
    return NumericRevision(text);
}

} // namespace kavel::broker

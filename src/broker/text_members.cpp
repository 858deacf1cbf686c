#include "text_members.h"

#include "json_writer.h"
#include "printable.h"

namespace kavel::broker {

std::string OneLine(std::string_view text, std::size_t size)
{
    std::string line = Printable(text);
    if (line.size() > size) {
        const auto isInsideCharacter = [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U; };
        while (size > 0 && isInsideCharacter(line[size])) {
            --size;
        }
        line.resize(size);
    }
    return line;
}

JsonPtr ParseBounded(std::string_view text, std::size_t size)
{
    if (text.size() > size) {
        throw InputError("is " + std::to_string(text.size()) + " bytes long, over the limit of " +
                         std::to_string(size));
    }
    return ParseJson(std::string(text));
}

void ExpectSchema(const JsonValue &value)
{
    if (value.TryNumber() != kJsonSchema) {
        value.RefuseKind("the number " + std::to_string(kJsonSchema));
    }
}

} // namespace kavel::broker

#include "journal.h"

#include <algorithm>
#include <iterator>

namespace fakehost {

namespace {

template <typename Predicate>
std::vector<std::string> Select(const std::vector<Entry> &Entries, Predicate Wanted)
{
    std::vector<std::string> Lines;
    for (const Entry &Each : Entries) {
        if (Wanted(Each)) {
            Lines.push_back(Each.Text());
        }
    }
    return Lines;
}

} // namespace

std::string Quote(std::string_view Text)
{
    constexpr std::string_view Hex = "0123456789abcdef";
    std::string Out = "\"";
    for (const char Each : Text) {
        const auto Byte = static_cast<unsigned char>(Each);
        if (Each == '\n') {
            Out += "\\n";
        } else if (Each == '"' || Each == '\\') {
            Out += {'\\', Each};
        } else if (Byte < 0x20 || Byte >= 0x7f) {
            Out += {'\\', 'x', Hex[Byte >> 4U], Hex[Byte & 15U]};
        } else {
            Out += Each;
        }
    }
    return Out + '"';
}

std::string CallText(std::string_view Name, std::string_view Arguments)
{
    return std::string(Name).append("(").append(Arguments).append(")");
}

std::string Entry::Text() const
{
    return CallText(Name, Arguments);
}

void AppendArgument(std::string &Out, Quoted Argument)
{
    Out += Argument.Text == nullptr ? "null" : Quote(Argument.Text);
}

void AppendArgument(std::string &Out, std::string_view Argument)
{
    Out += Argument;
}

std::vector<std::string> Journal::Trace() const
{
    return Select(m_Entries, [](const Entry &) { return true; });
}

std::vector<std::string> Journal::Of(EntryKind Kind) const
{
    return Select(m_Entries, [Kind](const Entry &Each) { return Each.Kind == Kind; });
}

std::vector<std::string> Journal::Named(std::string_view Name) const
{
    return Select(m_Entries, [Name](const Entry &Each) { return Each.Name == Name; });
}

} // namespace fakehost

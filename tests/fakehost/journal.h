// The calls of the module in order, as text for tests and golden files.
#ifndef FAKEHOST_JOURNAL_H
#define FAKEHOST_JOURNAL_H

#include <array>
#include <concepts>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace fakehost {

enum class EntryKind { World, Memory, Text, Log };

struct Entry {
    EntryKind Kind;
    std::string Name;
    std::string Arguments;

    // One line: Name(Arguments).
    [[nodiscard]] std::string Text() const;
};

// A C string argument. Null prints as null. The text is made only if the entry is kept.
struct Quoted {
    const char *Text;
};

// An argument whose text is made only if the entry is kept.
template <typename T>
concept Described = requires(const T &Argument, std::string &Out)
{
    {Argument.AppendTo(Out)};
};

void AppendArgument(std::string &Out, Quoted Argument);
void AppendArgument(std::string &Out, std::string_view Argument);

template <std::integral T>
void AppendArgument(std::string &Out, T Argument)
{
    Out += std::to_string(Argument);
}

template <Described T>
void AppendArgument(std::string &Out, const T &Argument)
{
    Argument.AppendTo(Out);
}

std::string CallText(std::string_view Name, std::string_view Arguments);

template <typename T>
void AppendSeparated(std::string &Out, const T &Argument)
{
    if (!Out.empty()) {
        Out += ", ";
    }
    AppendArgument(Out, Argument);
}

template <typename... Args>
std::string JoinArguments(const Args &...Arguments)
{
    std::string Out;
    (AppendSeparated(Out, Arguments), ...);
    return Out;
}

// The text of a call, as in the journal.
template <typename... Args>
std::string Describe(const char *Name, const Args &...Arguments)
{
    return CallText(Name, JoinArguments(Arguments...));
}

class Journal {
  public:
    // Text entries (formatting, copying, address conversion) are off by default, because there are tens of thousands.
    void Record(EntryKind Kind, bool Wanted) { m_Wanted[Index(Kind)] = Wanted; }
    void RecordNothing() { m_Wanted.fill(false); }

    template <typename... Args>
    void Add(EntryKind Kind, const char *Name, const Args &...Arguments)
    {
        if (!m_Wanted[Index(Kind)]) {
            return;
        }
        m_Entries.push_back({Kind, Name, JoinArguments(Arguments...)});
    }

    void Clear() { m_Entries.clear(); }

    [[nodiscard]] const std::vector<Entry> &Entries() const { return m_Entries; }
    // All entries, one line each.
    [[nodiscard]] std::vector<std::string> Trace() const;
    // Entries of one kind, one line each.
    [[nodiscard]] std::vector<std::string> Of(EntryKind Kind) const;
    // Entries of one service, one line each.
    [[nodiscard]] std::vector<std::string> Named(std::string_view Name) const;

  private:
    static constexpr std::size_t Index(EntryKind Kind) { return static_cast<std::size_t>(Kind); }

    std::array<bool, 4> m_Wanted{true, true, false, true};
    std::vector<Entry> m_Entries;
};

// The text in quotes, with control characters escaped.
std::string Quote(std::string_view Text);

} // namespace fakehost

#endif

#include "failures.h"

#include <algorithm>

namespace fakehost {

const char *TextOf(Shortage Lack)
{
    switch (Lack) {
    case Shortage::None:
        return "no shortage";
    case Shortage::OneBelowSize:
        return "a text one below the size";
    case Shortage::AtSize:
        return "a text of the size";
    case Shortage::OneAboveSize:
        return "a text one above the size";
    case Shortage::FewerBytes:
        return "half of the bytes";
    case Shortage::NoBytes:
        return "no bytes";
    case Shortage::ByteByByte:
        return "byte by byte";
    case Shortage::ReadError:
        return "a read error";
    case Shortage::FewerNames:
        return "half of the names";
    case Shortage::Empty:
        return "an empty list";
    case Shortage::Hollow:
        return "an empty list with a wrong count";
    }
    return "";
}

void Failures::Clear()
{
    m_Nth = {};
    m_Named.clear();
}

std::size_t Failures::CallsOf(const std::string &Service) const
{
    const auto Found = m_CallsByName.find(Service);
    return Found == m_CallsByName.end() ? 0 : Found->second;
}

std::optional<Fault> Failures::NextCounted(const std::string &Service, std::span<const Shortage> Known)
{
    const std::size_t Nth = ++m_Calls;
    const std::optional<int> Named = NextNamed(Service);
    if (Named.has_value()) {
        return Fault(*Named);
    }
    const Shortage Lack = m_Nth.How.Lack();
    const bool IsKnown = Lack == Shortage::None || std::find(Known.begin(), Known.end(), Lack) != Known.end();
    return m_Nth.Contains(Nth) && IsKnown ? std::optional(m_Nth.How) : std::nullopt;
}

std::optional<int> Failures::NextNamed(const std::string &Service)
{
    const std::size_t Nth = ++m_CallsByName[Service];
    const auto Found = m_Named.find(Service);
    if (Found == m_Named.end()) {
        return std::nullopt;
    }
    for (const Range &Each : Found->second) {
        if (Each.Contains(Nth)) {
            return Each.How.Error();
        }
    }
    return std::nullopt;
}

} // namespace fakehost

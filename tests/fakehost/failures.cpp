#include "failures.h"

namespace fakehost {

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

std::optional<int> Failures::NextCounted(const std::string &Service)
{
    const std::size_t Nth = ++m_Calls;
    const std::optional<int> Named = NextNamed(Service);
    if (Named.has_value()) {
        return Named;
    }
    return m_Nth.Contains(Nth) ? std::optional(m_Nth.Error) : std::nullopt;
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
            return Each.Error;
        }
    }
    return std::nullopt;
}

} // namespace fakehost

// The texts of findings, for expectations that are about the texts alone.
#ifndef KAVEL_TESTS_AGENT_FINDING_TEXTS_H
#define KAVEL_TESTS_AGENT_FINDING_TEXTS_H

#include <algorithm>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "instances/findings.h"

namespace kavel::agent {

inline std::vector<std::string> TextsOf(const std::vector<Finding> &findings)
{
    std::vector<std::string> texts;
    std::ranges::transform(findings, std::back_inserter(texts), &Finding::text);
    return texts;
}

inline std::optional<std::string> TextOf(const std::optional<Finding> &finding)
{
    return finding ? std::optional(finding->text) : std::nullopt;
}

} // namespace kavel::agent

#endif

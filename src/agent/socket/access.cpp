#include "socket/access.h"

#include <array>
#include <vector>

#include "control.pb-c.h"

namespace kavel::agent {
namespace {

// A verb that is not here is for full access alone.
struct LimitedVerb {
    std::int32_t verb;
    const char *name;
    Access rights; // one of them is enough
};

constexpr std::array kLimitedVerbs = {
    LimitedVerb{KAVEL__REQUEST__VERB__APPLY, "apply", Access::kApply},
    LimitedVerb{KAVEL__REQUEST__VERB__CHECK, "check", Access::kApply},
    LimitedVerb{KAVEL__REQUEST__VERB__STATUS, "status", Access::kStatus | Access::kRead},
    LimitedVerb{KAVEL__REQUEST__VERB__WHY, "why", Access::kRead},
    LimitedVerb{KAVEL__REQUEST__VERB__METRICS, "metrics", Access::kRead},
};

// "a, b and c"
std::string Listed(const std::vector<std::string> &names)
{
    std::string text;
    for (std::size_t i = 0; i < names.size(); ++i) {
        const bool isLast = i + 1 == names.size();
        text += (i == 0 ? "" : isLast ? " and " : ", ") + names[i];
    }
    return text;
}

} // namespace

bool IsAllowed(std::int32_t verb, Access access)
{
    if (HasAny(access, Access::kFull)) {
        return true;
    }
    for (const LimitedVerb &limited : kLimitedVerbs) {
        if (limited.verb == verb) {
            return HasAny(access, limited.rights);
        }
    }
    return false;
}

std::string RefusalText(Access access)
{
    std::vector<std::string> names;
    for (const LimitedVerb &limited : kLimitedVerbs) {
        if (HasAny(access, limited.rights)) {
            names.emplace_back(limited.name);
        }
    }
    return "only root may do this; this user may ask for " + Listed(names);
}

} // namespace kavel::agent

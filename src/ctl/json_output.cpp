#include "json_output.h"

namespace kavel::ctl {

JsonPtr FindingJson(const Kavel__Finding &finding)
{
    JsonPtr object = NewJsonObject();
    AddMember(object.get(), "code", JsonText(finding.code));
    AddMember(object.get(), "text", JsonText(finding.text));
    if (finding.remedy != nullptr) {
        AddMember(object.get(), "do", JsonText(finding.remedy));
    }
    return object;
}

} // namespace kavel::ctl

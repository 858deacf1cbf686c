// JSON that commands print for programs (--json): see json_writer.h.
#ifndef KAVEL_CTL_JSON_OUTPUT_H
#define KAVEL_CTL_JSON_OUTPUT_H

#include "control.pb-c.h"
#include "json_writer.h"

namespace kavel::ctl {

// {"code": ..., "text": ..., "do": ...}
[[nodiscard]] JsonPtr FindingJson(const Kavel__Finding &finding);

} // namespace kavel::ctl

#endif

// The requests that read the store.
#ifndef KAVEL_AGENT_STORE_REQUESTS_H
#define KAVEL_AGENT_STORE_REQUESTS_H

#include "services/store.h"
#include "socket/answer.h"

namespace kavel::agent {

[[nodiscard]] Answer ListStore(Store &store);
[[nodiscard]] Answer ShowStored(Store &store, const Kavel__Request &request);

} // namespace kavel::agent

#endif

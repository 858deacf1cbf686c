// The requests that read the store.
#ifndef KAVEL_AGENT_STORE_REQUESTS_H
#define KAVEL_AGENT_STORE_REQUESTS_H

#include "services/host.h"
#include "services/store.h"
#include "socket/answer.h"

namespace kavel::agent {

[[nodiscard]] Answer ListStore(Store &store);
// The stored text of the VPN that the request names. It need not be configured.
[[nodiscard]] Answer ShowStored(Host &host, const Kavel__Request &request);

} // namespace kavel::agent

#endif

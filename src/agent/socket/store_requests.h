// The verbs of the control socket that look into the store.
#ifndef KAVEL_AGENT_STORE_REQUESTS_H
#define KAVEL_AGENT_STORE_REQUESTS_H

#include "socket/answer.h"

namespace kavel::agent {

Answer ListStore();
Answer ShowStored(const Kavel__Request &request);

} // namespace kavel::agent

#endif

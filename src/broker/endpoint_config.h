// How to reach the broker, in a configuration file: the members of Endpoint.
#ifndef KAVEL_BROKER_ENDPOINT_CONFIG_H
#define KAVEL_BROKER_ENDPOINT_CONFIG_H

#include "json_reader.h"
#include "session.h"

namespace kavel::broker {

// Reads "host", "port", "ca", "certificate" and "key" of a JSON object. The port is optional; `presence` is that of the
// others. Throws InputError.
void ReadEndpoint(const JsonValue &value, kavel::Presence presence, Endpoint &endpoint);

} // namespace kavel::broker

#endif

// The configuration of vqlink, /etc/kavel/link.json:
//
//   {"box": "branch-1",
//    "broker": {"host": "broker.example", "port": 8883, "ca": "/etc/kavel/link/ca.pem",
//               "certificate": "/etc/kavel/link/box.pem", "key": "/etc/kavel/link/box.key"},
//    "agent": "/run/kavel/agent.sock", "log": "notice"}
//
// `port`, `agent` and `log` may be left out.
#ifndef KAVEL_LINK_LINK_CONFIG_H
#define KAVEL_LINK_LINK_CONFIG_H

#include <string>

#include "frame.h"
#include "log.h"
#include "session.h"

namespace kavel::link {

struct LinkConfig {
    std::string box; // its name, see topics.h
    broker::Endpoint broker;
    std::string agent = control::kDefaultSocket;
    LogLevel log = LogLevel::kNotice;
};

// Throws InputError: one line that names the key.
[[nodiscard]] LinkConfig ParseLinkConfig(const std::string &text);

// The same for a file, which is not named in the text of the exception.
[[nodiscard]] LinkConfig LoadLinkConfig(const std::string &file);

} // namespace kavel::link

#endif

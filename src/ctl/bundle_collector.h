// Collects what goes into a bundle. Everything has a limit of time and of size; what fails is noted.
#ifndef KAVEL_CTL_BUNDLE_COLLECTOR_H
#define KAVEL_CTL_BUNDLE_COLLECTOR_H

#include <string>

#include "bundle_content.h"
#include "session.h"

namespace kavel::ctl {

struct BundlePaths {
    std::string config = "/etc/kavel/agent.json";
    std::string files = "/etc/kavel/dnsmasq";
    std::string state = "/run/kavel";
    std::string pidFiles = "/run";
    std::string namespaces = "/run/netns";
};

// What the agent tells; 5 s for an answer at most, and nothing more is asked when there is none. Whether it answered.
bool CollectFromAgent(const Session &session, BundleContent &content);

// What the box tells without an agent. `withStore`: also the file of the store.
void CollectFromBox(const BundlePaths &paths, bool withStore, BundleContent &content);

} // namespace kavel::ctl

#endif

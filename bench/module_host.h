// The fake host as a measure of nothing but the module: it records nothing, and the services that are called by the
// thousand do their work bare, since their bookkeeping would cost more than the work and hide what is measured. Floors
// call the same services, so that what is left of the host's cost stands on both sides.
#ifndef BENCH_MODULE_HOST_H
#define BENCH_MODULE_HOST_H

#include <cstdint>
#include <string>

#include "host.h"

namespace kavel::bench {

// The VPN of every message.
inline constexpr std::uint32_t kVpnId = 7;

// A box on which the instance of the VPN runs and every message is carried out: without system routes, with a store.
class NullHost {
  public:
    NullHost();

  private:
    fakehost::Host host_;
};

// What is written to files from here on is kept in `target`, one after another; null ends it.
void KeepWritten(std::string *target);

} // namespace kavel::bench

#endif

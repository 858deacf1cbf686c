// The fake host with as little cost of its own as possible. It records nothing, and the services that are called
// thousands of times are replaced by functions without bookkeeping, which would cost more than the measured work. The
// floors call the same services, so that the remaining cost of the host is the same in both.
#ifndef BENCH_MODULE_HOST_H
#define BENCH_MODULE_HOST_H

#include <cstdint>
#include <string>

#include "host.h"

namespace kavel::bench {

// The VPN of every message.
inline constexpr std::uint32_t kVpnId = 7;

// A box where the instance of the VPN is running and every message is applied. It has a store and no system routes.
class NullHost {
  public:
    NullHost();

  private:
    fakehost::Host host_;
};

// From now on, appends everything that is written to files to `target`. Null ends this.
void CaptureWrites(std::string *target);

} // namespace kavel::bench

#endif

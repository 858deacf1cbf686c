// Records for the targets: kept between inputs, since zeroing 17 MB takes longer than what is tested.
#ifndef FUZZ_RECORD_H
#define FUZZ_RECORD_H

#include <cstddef>
#include <memory>

#include "vqCtrlAdvancedDns.h"

namespace fuzz {

// How many entries of each list were written, the last of them perhaps in part.
struct Extent {
    size_t Hosts;
    size_t Mxs;
    size_t Servers;
    size_t Proxies;
};

// As far as the record's own counts say. A forward table that is full has the count 0.
Extent ExtentOf(const VQ_CTRL_DNSMASQ_CONF &Conf);

// A record that is zeroed whenever it is taken.
class ReusedRecord {
  public:
    ReusedRecord();

    VQ_CTRL_DNSMASQ_CONF &operator*() const { return *m_Record; }
    VQ_CTRL_DNSMASQ_CONF *operator->() const { return m_Record.get(); }

    // Zeroes the header and so many entries. With `Check`, everything else must be zero already.
    void Clear(const Extent &Written, bool Check);

  private:
    struct Free {
        void operator()(VQ_CTRL_DNSMASQ_CONF *Record) const;
    };

    std::unique_ptr<VQ_CTRL_DNSMASQ_CONF, Free> m_Record;
};

// Each list within its table.
void RequireCountsWithinCapacity(const VQ_CTRL_DNSMASQ_CONF &Conf);

// Header and all counted entries; the operation and the persistence flag, which texts do not carry, are left out.
bool SameContent(const VQ_CTRL_DNSMASQ_CONF &One, const VQ_CTRL_DNSMASQ_CONF &Other);

} // namespace fuzz

#endif

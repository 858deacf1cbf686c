// Records for the targets. They are reused for all inputs, since zeroing 17 MB takes longer than the test.
#ifndef FUZZ_RECORD_H
#define FUZZ_RECORD_H

#include <cstddef>
#include <memory>

#include "vqCtrlAdvancedDns.h"

namespace fuzz {

// How many entries of each list were written; the last one may be incomplete.
struct Extent {
    size_t Hosts;
    size_t Mxs;
    size_t Servers;
    size_t Proxies;
};

// According to the record's own counts. A full forward table has the count 0.
Extent ExtentOf(const VQ_CTRL_DNSMASQ_CONF &Conf);

// A record that is zeroed between two inputs.
class ReusedRecord {
  public:
    ReusedRecord();

    VQ_CTRL_DNSMASQ_CONF &operator*() const { return *m_Record; }
    VQ_CTRL_DNSMASQ_CONF *operator->() const { return m_Record.get(); }

    // Zeroes the header and `Written` entries. With `Check`, aborts the process if anything else is not zero.
    void Clear(const Extent &Written, bool Check);

  private:
    struct Free {
        void operator()(VQ_CTRL_DNSMASQ_CONF *Record) const;
    };

    std::unique_ptr<VQ_CTRL_DNSMASQ_CONF, Free> m_Record;
};

// Aborts the process if a list has more entries than its table.
void RequireCountsWithinCapacity(const VQ_CTRL_DNSMASQ_CONF &Conf);

// Compares the header and all counted entries, except the operation and the persistence flag: texts do not contain
// them.
bool SameContent(const VQ_CTRL_DNSMASQ_CONF &One, const VQ_CTRL_DNSMASQ_CONF &Other);

} // namespace fuzz

#endif

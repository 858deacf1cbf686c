// The fixture of all tests of the module: a new host, whose violations are checked at the end.
#ifndef MODULE_TEST_H
#define MODULE_TEST_H

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host.h"
#include "vqCtrlAdvancedDns.h"

constexpr uint32_t Ip(uint32_t First, uint32_t Second, uint32_t Third, uint32_t Fourth)
{
    return (First << 24U) | (Second << 16U) | (Third << 8U) | Fourth;
}

struct FreeRecord {
    void operator()(VQ_CTRL_DNSMASQ_CONF *Record) const { std::free(Record); }
};

using Record = std::unique_ptr<VQ_CTRL_DNSMASQ_CONF, FreeRecord>;

// A zeroed record of a VPN.
Record NewRecord(uint32_t VpnId);
void AddHost(VQ_CTRL_DNSMASQ_CONF &Conf, uint32_t Address, std::string_view Domain);
void AddMx(VQ_CTRL_DNSMASQ_CONF &Conf, std::string_view Target, std::string_view Source, uint32_t Preference);
void AddServer(VQ_CTRL_DNSMASQ_CONF &Conf, uint32_t Address, std::string_view Interface);
void AddProxy(VQ_CTRL_DNSMASQ_CONF &Conf, std::string_view Domain, uint32_t Address);

// A name of exactly `Length` characters (at least 200) that is valid except perhaps for its length.
std::string DomainOfLength(std::size_t Length);

// The conversions of the module, as a host must have them in its table.
VQ_DATA_CONTENT_TRANS_OP ModuleConversions();

// Whether two objects have the same bytes, including padding.
bool SameBytes(const void *One, const void *Other, std::size_t Size);

class ModuleTest : public testing::Test {
  protected:
    void SetUp() override { errno = 0; }
    void TearDown() override { EXPECT_THAT(Host.Verify(), testing::IsEmpty()); }

    // "level function: message", in order.
    [[nodiscard]] std::vector<std::string> Logs() const { return Host.Log.Texts(); }
    // The calls that reach outside the process, without memory and text services.
    [[nodiscard]] std::vector<std::string> World() const { return Host.Calls.Of(fakehost::EntryKind::World); }
    // The content of a file; empty if there is none.
    [[nodiscard]] std::string File(const std::string &Path) const { return Host.Files.Content(Path).value_or(""); }

    fakehost::Host Host;
};

#endif

// What the agent's store does beyond what its rows show: a row outlives a power cut, texts are released.
#include <algorithm>
#include <string>

#include "contract_test.h"
#include "syscall_tracer.h"
#include "vqMemory.h"
#include "vqStore.h"

namespace kavel::contract {
namespace {

class AgentStore : public ContractTest {};

TEST_F(AgentStore, ConversionTableReleasesMemoryOfTheHost)
{
    PROMISE(kStoreConversionFree);
    const auto release = VQ_GetDbDataTransOp()->DataTransJsonStrFree;
    ASSERT_NE(release, nullptr);
    void *const text = VQ_AgentMemAlloc(24);
    ASSERT_NE(text, nullptr);
    release(static_cast<char *>(text));
}

TEST_F(AgentStore, RowIsSyncedBeforeTheCallReturns)
{
    PROMISE(kStoreAddDurable);
    const Outcome outcome = RunTraced([] {
        return VQ_SqliteDnsMasqConfOp(static_cast<BOOL>(kVpn), std::string("text").data(), VQ_SQL_CONF_OP_ADD,
                                      VQ_SQL_CONF_CPE_DNSMASQ);
    });
    EXPECT_EQ(outcome.result, 0);
    EXPECT_TRUE(std::ranges::any_of(outcome.calls, [](const SystemCall &call) {
        return (call.Is("fdatasync") || call.Is("fsync")) && call.path.ends_with("-wal");
    }));
}

} // namespace
} // namespace kavel::contract

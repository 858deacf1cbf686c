// Stored text: it is read into a record, written and read again.
#include <memory>
#include <string>

#include "fuzz.h"
#include "host.h"
#include "record.h"
#include "vqCtrlAdvancedDns.h"
#include "vqLog.h"
#include "vqMemory.h"

namespace {

struct FreeText {
    void operator()(char *Text) const { VQ_AgentMemFree(Text); }
};
using TextPtr = std::unique_ptr<char, FreeText>;

TextPtr TextOf(const VQ_CTRL_DNSMASQ_CONF &Conf)
{
    TextPtr Out(VQCtrl_AdvancedDnsConfToJsonStr(&Conf));
    fuzz::Require(Out != nullptr, "a record that was read cannot be written");
    return Out;
}

void CheckAgain(const VQ_CTRL_DNSMASQ_CONF &Conf)
{
    static fuzz::ReusedRecord Again;
    const TextPtr Text = TextOf(Conf);
    fuzz::RequireSame("the result of reading what was written", VQCtrl_AdvancedDnsJsonStrToConf(&*Again, Text.get()),
                      0);
    fuzz::Require(fuzz::SameContent(*Again, Conf), "the record that was read differs from the written one");
    const TextPtr Second = TextOf(*Again);
    fuzz::RequireSame("the second text", {Second.get()}, {Text.get()});
    Again.Clear(fuzz::ExtentOf(*Again), false);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size)
{
    constexpr uint32_t OneIn = 256;
    static fuzz::ReusedRecord Conf;
    const std::string Text(Data, Data + Size);
    fakehost::Host Host;
    Host.RecordNothing();
    // At this level the module logs the complete text.
    Host.Log.LevelEnabled[VQ_LOG_LEVEL_VERBOSE] = false;
    Host.Memory.ReuseRecords();

    const VQ_ERR_T Result = VQCtrl_AdvancedDnsJsonStrToConf(&*Conf, Text.c_str());
    if (Result == 0) {
        fuzz::RequireCountsWithinCapacity(*Conf);
        CheckAgain(*Conf);
    } else {
        fuzz::Require(Result == -EINVAL || Result == -EOVERFLOW, "a text is refused with an unknown error number");
    }
    Conf.Clear(fuzz::ExtentOf(*Conf), fuzz::IsSampled({Data, Size}, OneIn));
    fuzz::RequireNone("violations of the host's rules", Host.Verify());
    return 0;
}

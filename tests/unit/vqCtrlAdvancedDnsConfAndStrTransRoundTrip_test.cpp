// Writes random valid records and reads them back. KAVEL_SEED=<number> in the environment repeats a run.
#include <cstdlib>
#include <iostream>
#include <random>

#include "moduleTest.h"
#include "vqMemory.h"

namespace {

// Gives the same numbers for the same seed with every standard library.
class Numbers {
  public:
    explicit Numbers(uint64_t Seed) : m_Engine(Seed) {}

    uint32_t Any() { return static_cast<uint32_t>(m_Engine()); }
    // From 0 to `Last`.
    uint32_t UpTo(uint32_t Last) { return static_cast<uint32_t>(m_Engine() % (uint64_t{Last} + 1)); }

  private:
    std::mt19937_64 m_Engine;
};

uint64_t Seed()
{
    const char *Wanted = std::getenv("KAVEL_SEED");
    return Wanted != nullptr ? std::strtoull(Wanted, nullptr, 10) : std::random_device()();
}

// Any ASCII characters except the terminator.
std::string AnyText(Numbers &Random, uint32_t Longest)
{
    constexpr uint32_t LastAscii = 127;
    std::string Out(Random.UpTo(Longest), ' ');
    for (char &Each : Out) {
        Each = static_cast<char>(1 + Random.UpTo(LastAscii - 1));
    }
    return Out;
}

// Mostly small lists, sometimes a full one.
uint32_t AnyCount(Numbers &Random, uint32_t Most)
{
    return Random.UpTo(15) == 0 ? Most : Random.UpTo(std::min(Most, 20U));
}

// The smallest and the largest signed 32-bit number cannot be read back; see the tests of the reader.
uint32_t AnyVpnId(Numbers &Random)
{
    constexpr uint32_t Corners[] = {0, 1, 2147483646, 2147483649, 4294967294, 4294967295};
    const uint32_t Any = Random.Any();
    const bool AtALimit = Any == 2147483647 || Any == 2147483648;
    return Random.UpTo(2) == 0 || AtALimit ? Corners[Random.UpTo(5)] : Any;
}

Record AnyRecord(Numbers &Random)
{
    constexpr uint32_t LongestDomain = 255;
    constexpr uint32_t LongestInterface = 15;
    constexpr uint32_t LargestPreference = 65536;
    constexpr uint32_t MostProxies = 65535;
    Record Conf = NewRecord(AnyVpnId(Random));
    Conf->Enable = Random.UpTo(1) == 0 ? FALSE : TRUE;
    Conf->Op = static_cast<VQ_CTRL_DNSMASQ_OPERATION>(Random.Any());
    Conf->PersistentFlag = Random.UpTo(1) == 0 ? FALSE : TRUE;
    Conf->LocalIp = Random.Any();
    for (uint32_t Left = AnyCount(Random, 1024); Left > 0; --Left) {
        AddHost(*Conf, Random.Any(), AnyText(Random, LongestDomain));
    }
    for (uint32_t Left = AnyCount(Random, 1024); Left > 0; --Left) {
        const std::string Target = AnyText(Random, LongestDomain);
        AddMx(*Conf, Target, AnyText(Random, LongestDomain), Random.UpTo(LargestPreference));
    }
    for (uint32_t Left = AnyCount(Random, 8); Left > 0; --Left) {
        AddServer(*Conf, Random.Any(), AnyText(Random, LongestInterface));
    }
    const uint32_t Proxies = AnyCount(Random, MostProxies);
    const uint32_t Longest = Proxies == MostProxies ? 20 : LongestDomain;
    for (uint32_t Left = Proxies; Left > 0; --Left) {
        AddProxy(*Conf, AnyText(Random, Longest), Random.Any());
    }
    return Conf;
}

class RoundTrip : public ModuleTest {
  protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        Host.RecordNothing();
        Host.Log.LevelEnabled[2] = false;
    }

    static Record ThereAndBack(const VQ_CTRL_DNSMASQ_CONF &Conf)
    {
        char *Text = VQCtrl_AdvancedDnsConfToJsonStr(&Conf);
        Record Out = NewRecord(0);
        EXPECT_NE(Text, nullptr);
        EXPECT_EQ(Text == nullptr ? -1 : VQCtrl_AdvancedDnsJsonStrToConf(Out.get(), Text), 0);
        VQ_AgentMemFree(Text);
        return Out;
    }

    // Except for the operation and the flag, which the text does not have.
    static void ExpectSame(const VQ_CTRL_DNSMASQ_CONF &Read, VQ_CTRL_DNSMASQ_CONF &Written)
    {
        EXPECT_EQ(Read.Op, VQ_CTRL_DNSMASQ_OP_REBOOT);
        EXPECT_EQ(Read.PersistentFlag, FALSE);
        Written.Op = VQ_CTRL_DNSMASQ_OP_REBOOT;
        Written.PersistentFlag = FALSE;
        EXPECT_TRUE(SameBytes(&Read, &Written, sizeof(Read)));
    }
};

TEST_F(RoundTrip, OfRandomRecords)
{
    constexpr int Rounds = 40;
    const uint64_t Chosen = Seed();
    std::cout << "KAVEL_SEED=" << Chosen << '\n';
    RecordProperty("seed", std::to_string(Chosen));
    Numbers Random(Chosen);
    for (int Round = 0; Round < Rounds && !HasFailure(); ++Round) {
        SCOPED_TRACE("KAVEL_SEED=" + std::to_string(Chosen) + ", record " + std::to_string(Round));
        const Record Conf = AnyRecord(Random);
        const Record Read = ThereAndBack(*Conf);
        ExpectSame(*Read, *Conf);
    }
}

TEST_F(RoundTrip, OfAFullRecord)
{
    const Record Conf = NewRecord(4294967295);
    for (uint32_t Each = 0; Each < 1024; ++Each) {
        AddHost(*Conf, Each, std::string(255, 'h'));
        AddMx(*Conf, std::string(255, 't'), std::string(255, 's'), Each);
    }
    for (uint32_t Each = 0; Each < 8; ++Each) {
        AddServer(*Conf, Each, "interface-15chr");
    }
    for (uint32_t Each = 0; Each < 65535; ++Each) {
        AddProxy(*Conf, std::to_string(Each) + ".example.com", Each);
    }
    ExpectSame(*ThereAndBack(*Conf), *Conf);
}

TEST_F(RoundTrip, OfAVpnIdAtASignedLimitGivesZero)
{
    for (const uint32_t VpnId : {2147483647U, 2147483648U}) {
        const Record Conf = NewRecord(VpnId);
        EXPECT_EQ(ThereAndBack(*Conf)->VpnId, 0U);
    }
}

// Entries past a count are not read back, and neither is a full proxy table.
TEST_F(RoundTrip, OfAFullProxyTableGivesNone)
{
    const Record Conf = NewRecord(7);
    AddProxy(*Conf, "p.example.com", 1);
    Conf->DnsProxyNum = 0;
    const Record Read = ThereAndBack(*Conf);
    EXPECT_EQ(Read->DnsProxyNum, 0U);
    EXPECT_STREQ(Read->DnsProxy[0].Domain, "");
}

} // namespace

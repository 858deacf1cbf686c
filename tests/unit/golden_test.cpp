// Golden cases: each folder of golden/ has an input, the expected files, and the expected host calls and log lines in
// order. With KAVEL_REGENERATE_GOLDEN=1 in the environment, the test writes the expected files and calls again.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "goldenInput.h"

namespace {

namespace fs = std::filesystem;

// Texts by their path inside the folder of the case.
using Outcome = std::map<std::string, std::string>;

// A longer text is stored as its digest.
constexpr std::size_t kLargestText = 65536;
constexpr std::size_t kShownLines = 3;

std::vector<std::string> SplitLines(const std::string &Text)
{
    std::vector<std::string> Lines;
    std::istringstream Stream(Text);
    for (std::string Line; std::getline(Stream, Line);) {
        Lines.push_back(Line);
    }
    return Lines;
}

// FNV-1a with 64 bits. It only has to differ when a text has changed.
std::string Hash(const std::string &Text)
{
    uint64_t Value = 0xcbf29ce484222325U;
    for (const char Each : Text) {
        Value = (Value ^ static_cast<unsigned char>(Each)) * 0x100000001b3U;
    }
    char Out[17];
    static_cast<void>(std::snprintf(Out, sizeof(Out), "%016llx", static_cast<unsigned long long>(Value)));
    return Out;
}

// Size, hash, the first and the last lines.
std::string Digest(const std::string &Text)
{
    const std::vector<std::string> Lines = SplitLines(Text);
    std::ostringstream Out;
    Out << "bytes " << Text.size() << "\nlines " << Lines.size() << "\nfnv1a64 " << Hash(Text) << '\n';
    for (std::size_t At = 0; At < kShownLines; ++At) {
        Out << Lines[At] << '\n';
    }
    Out << "...\n";
    for (std::size_t At = Lines.size() - kShownLines; At < Lines.size(); ++At) {
        Out << Lines[At] << '\n';
    }
    return Out.str();
}

void Keep(Outcome &Out, const std::string &Name, const std::string &Text)
{
    if (Text.size() > kLargestText) {
        Out[Name + ".digest"] = Digest(Text);
    } else {
        Out[Name] = Text;
    }
}

std::string ApplyMessage(const GoldenInput &Input)
{
    CpeMessage Message;
    Input.FillMessage(Message);
    const VQ_CTRL_DNSMASQ_CONFIG_PB Carrier = Message.Carrier();
    VQCtrl_AgentSetCPEAdvancedDnsOps();
    return "VQCtrl_ConfigAdvancedDns gives " + std::to_string(VQCtrl_ConfigAdvancedDns(&Carrier)) + '\n';
}

std::string WriteRecord(const GoldenInput &Input)
{
    const Record Conf = NewRecord(0);
    Input.FillRecord(*Conf);
    std::ostringstream Out;
    Out << "VQCtrl_SetDnsHostConf gives " << VQCtrl_SetDnsHostConf(Conf.get()) << '\n';
    Out << "VQCtrl_SetDnsMxHostConf gives " << VQCtrl_SetDnsMxHostConf(Conf.get()) << '\n';
    Out << "VQCtrl_SetDnsServerConf gives " << VQCtrl_SetDnsServerConf(Conf.get()) << '\n';
    Out << "VQCtrl_SetDnsResolveConf gives " << VQCtrl_SetDnsResolveConf(Conf.get()) << '\n';
    Out << "VQCtrl_SetDnsProxyConf gives " << VQCtrl_SetDnsProxyConf(Conf.get()) << '\n';
    Out << "VQCtrl_AddDnsmasqRouteForVpn gives " << VQCtrl_AddDnsmasqRouteForVpn(Conf.get()) << '\n';
    return Out.str();
}

std::string ApplyPopMessage(const GoldenInput &Input)
{
    PopMessage Message = Input.ToPopMessage();
    const VQ_CTRL_DNSMASQ_CONFIG_PB Carrier = Message.Carrier();
    VQCtrl_AgentSetPOPAdvancedDnsOps();
    return "VQCtrl_ConfigAdvancedDns gives " + std::to_string(VQCtrl_ConfigAdvancedDns(&Carrier)) + '\n';
}

std::string Recover(const GoldenInput & /*Input*/)
{
    VQCtrl_AgentSetCPEAdvancedDnsOps();
    return "VQCtrl_AgentRecoverAdvancedDnsConf gives " + std::to_string(VQCtrl_AgentRecoverAdvancedDnsConf()) + '\n';
}

std::string RunInput(const GoldenInput &Input)
{
    const std::map<std::string, std::string (*)(const GoldenInput &)> Runners{
        {"message", ApplyMessage}, {"pop message", ApplyPopMessage}, {"record", WriteRecord}, {"recovery", Recover}};
    return Runners.at(Input.Kind())(Input);
}

Outcome RunCase(const fs::path &Case)
{
    const GoldenInput Input(Case / "input.json");
    fakehost::Host Host;
    Input.PrepareBox(Host);
    const std::string Results = RunInput(Input);
    Outcome Out;
    std::ostringstream Calls;
    for (const std::string &Line : Host.Calls.Trace()) {
        Calls << Line << '\n';
    }
    Calls << Results;
    Keep(Out, "calls.txt", Calls.str());
    for (const std::string &Path : Host.Files.Written()) {
        Keep(Out, "expected" + Path, Host.Files.Content(Path).value_or(""));
    }
    EXPECT_THAT(Host.Verify(), testing::IsEmpty());
    return Out;
}

std::string ReadFile(const fs::path &Path)
{
    std::ifstream Stream(Path, std::ios::binary);
    return {std::istreambuf_iterator<char>(Stream), std::istreambuf_iterator<char>()};
}

Outcome ReadExpected(const fs::path &Case)
{
    Outcome Out;
    for (const fs::directory_entry &Each : fs::recursive_directory_iterator(Case)) {
        if (Each.is_regular_file() && Each.path().filename() != "input.json") {
            Out[Each.path().lexically_relative(Case).string()] = ReadFile(Each.path());
        }
    }
    return Out;
}

void Regenerate(const fs::path &Case, const Outcome &Texts)
{
    for (const auto &[Name, Text] : ReadExpected(Case)) {
        fs::remove(Case / Name);
    }
    for (const auto &[Name, Text] : Texts) {
        fs::create_directories((Case / Name).parent_path());
        std::ofstream(Case / Name, std::ios::binary) << Text;
    }
}

std::vector<std::string> NamesOf(const Outcome &Texts)
{
    std::vector<std::string> Out;
    std::transform(Texts.begin(), Texts.end(), std::back_inserter(Out), [](const auto &Each) { return Each.first; });
    return Out;
}

std::vector<std::string> CaseNames()
{
    std::vector<std::string> Out;
    for (const fs::directory_entry &Each : fs::directory_iterator(KAVEL_GOLDEN_DIRECTORY)) {
        if (Each.is_directory()) {
            Out.push_back(Each.path().filename().string());
        }
    }
    std::sort(Out.begin(), Out.end());
    return Out;
}

class Golden : public testing::TestWithParam<std::string> {};

TEST_P(Golden, Case)
{
    const fs::path Case = fs::path(KAVEL_GOLDEN_DIRECTORY) / GetParam();
    const Outcome Actual = RunCase(Case);
    if (std::getenv("KAVEL_REGENERATE_GOLDEN") != nullptr) {
        Regenerate(Case, Actual);
        GTEST_SKIP() << "written anew, not compared";
    }
    const Outcome Expected = ReadExpected(Case);
    ASSERT_EQ(NamesOf(Actual), NamesOf(Expected));
    for (const auto &[Name, Text] : Expected) {
        EXPECT_EQ(Actual.at(Name), Text) << Name;
    }
}

INSTANTIATE_TEST_SUITE_P(Cases, Golden, testing::ValuesIn(CaseNames()), [](const auto &Info) {
    std::string Name = Info.param;
    std::replace(Name.begin(), Name.end(), '-', '_');
    return Name;
});

} // namespace

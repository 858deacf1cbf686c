#include "instances/module.h"

#include <dlfcn.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "test_box.h"

namespace kavel::agent {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

class ModuleTest : public testing::Test {
  protected:
    std::string FailureOf(const std::string &path)
    {
        try {
            const Module module(path, host_);
        } catch (const std::runtime_error &failure) {
            return failure.what();
        }
        return "was loaded";
    }

    TestBox box_;
    Host host_{box_.Configuration()};
};

// Any library that is no module.
std::string OtherLibrary()
{
    Dl_info info{};
    EXPECT_NE(::dladdr(::dlsym(RTLD_DEFAULT, "sqlite3_libversion"), &info), 0);
    return std::filesystem::absolute(info.dli_fname).string();
}

TEST_F(ModuleTest, AMissingLibraryIsAnError)
{
    EXPECT_THAT(FailureOf("/nonexistent/module.so"), HasSubstr("/nonexistent/module.so: cannot open shared object"));
}

TEST_F(ModuleTest, AFileThatIsNoLibraryIsAnError)
{
    box_.Write("/module.so", "not a library");
    EXPECT_THAT(FailureOf(box_.Path("/module.so")), HasSubstr(box_.Path("/module.so") + ": "));
}

TEST_F(ModuleTest, ALibraryWithoutTheFunctionsIsAnError)
{
    const std::string path = OtherLibrary();
    EXPECT_THAT(FailureOf(path), AllOf(StartsWith(path + ": lacks VQCtrl_AddDnsmasqRouteForVpn "),
                                       HasSubstr(" VQCtrl_ConfigAdvancedDns "), HasSubstr(" VQCtrl_ValidateDomain")));
    EXPECT_EQ(host_.conversions.DnsmasqStrToConf, nullptr);
}

TEST_F(ModuleTest, LoadsTheModuleAndGivesTheHostItsConversions)
{
    const Module module(KAVEL_MODULE, host_);
    EXPECT_EQ(module.Path(), KAVEL_MODULE);
    const ModuleFunctions &functions = module.Functions();
    EXPECT_TRUE(functions.setPlatform != nullptr && functions.stopOldService != nullptr &&
                functions.configure != nullptr && functions.translate != nullptr && functions.recover != nullptr &&
                functions.initDirectory != nullptr && functions.releaseDirectory != nullptr &&
                functions.stopInstance != nullptr);
    EXPECT_NE(host_.conversions.DnsmasqConfToStr, nullptr);
    EXPECT_NE(host_.conversions.DnsmasqStrToConf, nullptr);
}

TEST_F(ModuleTest, FindsTheModuleBesideTheProgram)
{
    const Module module("", host_);
    EXPECT_TRUE(std::filesystem::equivalent(module.Path(), KAVEL_MODULE));
}

TEST_F(ModuleTest, ARelativePathIsOneOfTheWorkingDirectory)
{
    const std::string relative = std::filesystem::relative(KAVEL_MODULE).string();
    EXPECT_NE(relative.front(), '/');
    const Module module(relative, host_);
    EXPECT_TRUE(std::filesystem::equivalent(module.Path(), KAVEL_MODULE));
    EXPECT_EQ(module.Path().front(), '/');
}

TEST_F(ModuleTest, GivesTheFunctionsOfTheBoxsPlatform)
{
    const Module cpe(KAVEL_MODULE, host_);
    const ModuleFunctions cpeFunctions = cpe.Functions();
    Config config = box_.Configuration();
    config.platform = Platform::kPop;
    Host popHost(config);
    const Module pop(KAVEL_MODULE, popHost);
    EXPECT_NE(pop.Functions().setPlatform, cpeFunctions.setPlatform);
    EXPECT_NE(pop.Functions().translate, cpeFunctions.translate);
    EXPECT_EQ(pop.Functions().configure, cpeFunctions.configure);
}

} // namespace
} // namespace kavel::agent

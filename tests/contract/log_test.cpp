#include <array>
#include <cstring>
#include <set>
#include <string>

#include "contract_test.h"
#include "vqLog.h"

namespace kavel::contract {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::NotNull;

constexpr std::uint32_t kModule = VQ_LOG_MODULE_ADVANCED_DNS;
constexpr std::size_t kNameSize = 16;
constexpr const char *kPrefixed = "<%s%s>%s[%s:%d] bad domain %s\n";

// Writes a line as the module does.
void WriteLine(std::uint32_t level, const char *function, const char *argument)
{
    const VQ_LOG_IMPL_ITEM *const item = VQ_LogGetImplItem(kModule);
    if (VQ_LogTest(kModule, level, TRUE, function) == FALSE || item == nullptr || item->Log == nullptr) {
        return;
    }
    std::array<char, kNameSize> name{};
    VQ_ThreadGetName(name.data(), name.size());
    const std::string thread = std::string("[") + name.data() + "]";
    item->Log(VQ_AgentLogGetTag(), level, kPrefixed, item->LogLevel2Str(level), VQ_LogGetModuleName(kModule),
              thread.c_str(), function, 17, argument);
}

// What the module does for an error after its line. Returns the text that is dumped, if a dump is enabled.
std::string FinishError(const char *function, const char *argument)
{
    std::string dumped = "dump disabled";
    EXPECT_GE(VQ_FlexLogSetFormatData("bad domain %s\n", argument), 0);
    if (VQ_LogTest(kModule, VQ_LOG_LEVEL_ERROR, FALSE, function) != FALSE) {
        dumped = VQ_FlexLogGetFormatBuff();
        const VQ_LOG_IMPL_ITEM *const item = VQ_LogGetImplItem(kModule);
        std::array<char, kNameSize> name{};
        VQ_ThreadGetName(name.data(), name.size());
        const std::string thread = std::string("[") + name.data() + "]";
        item->Log(VQ_AgentLogGetTag(), VQ_LOG_LEVEL_ERROR, "<%s%s>%s[%s:%d] dump flexlog:\n%s",
                  item->LogLevel2Str(VQ_LOG_LEVEL_ERROR), VQ_LogGetModuleName(kModule), thread.c_str(), function, 17,
                  dumped.c_str());
    }
    VQ_FlexLogDataReset();
    return dumped;
}

class Logging : public ContractTest {};

TEST_F(Logging, HasAnImplementationWithTheModulesOperations)
{
    PROMISE(kLogItem);
    const VQ_LOG_IMPL_ITEM *const item = VQ_LogGetImplItem(kModule);
    ASSERT_THAT(item, NotNull());
    EXPECT_NE(item->Log, nullptr);
    EXPECT_NE(item->LogValist, nullptr);
    EXPECT_NE(item->LogLevel2Str, nullptr);
}

TEST_F(Logging, HasADifferentTextForEachLevel)
{
    PROMISE(kLogLevelText);
    const VQ_LOG_IMPL_ITEM *const item = VQ_LogGetImplItem(kModule);
    std::set<std::string> texts;
    for (std::uint32_t level = VQ_LOG_LEVEL_NOTICE; level <= VQ_LOG_LEVEL_ERROR; ++level) {
        const char *const text = item->LogLevel2Str(level);
        ASSERT_THAT(text, NotNull()) << level;
        EXPECT_STRNE(text, "") << level;
        texts.insert(text);
    }
    EXPECT_EQ(texts.size(), 4U);
    EXPECT_THAT(item->LogLevel2Str(VQ_LOG_LEVEL_NOTICE), HasSubstr("NOTICE"));
    EXPECT_THAT(item->LogLevel2Str(VQ_LOG_LEVEL_VERBOSE), HasSubstr("VERBOSE"));
    EXPECT_THAT(item->LogLevel2Str(VQ_LOG_LEVEL_WARNING), HasSubstr("WARNING"));
    EXPECT_THAT(item->LogLevel2Str(VQ_LOG_LEVEL_ERROR), HasSubstr("ERROR"));
}

TEST_F(Logging, NamesTheModuleAndTheAgent)
{
    PROMISE(kLogModuleName);
    PROMISE(kLogTag);
    ASSERT_THAT(VQ_LogGetModuleName(kModule), NotNull());
    EXPECT_STRNE(VQ_LogGetModuleName(kModule), "");
    ASSERT_THAT(VQ_AgentLogGetTag(), NotNull());
    EXPECT_STRNE(VQ_AgentLogGetTag(), "");
}

TEST_F(Logging, WritesTheCompleteLine)
{
    const std::string logged = world().LoggedBy([] { WriteLine(VQ_LOG_LEVEL_WARNING, "Check", "a_b"); });
    EXPECT_THAT(logged, HasSubstr("bad domain a_b\n"));
    EXPECT_THAT(logged, HasSubstr("Check"));
    EXPECT_THAT(logged, HasSubstr("WARNING"));
}

TEST_F(Logging, WritesALineOfAnyLength)
{
    PROMISE(kLogLine);
    const std::string argument(20000, 'x');
    const std::string logged = world().LoggedBy([&] { WriteLine(VQ_LOG_LEVEL_WARNING, "Check", argument.c_str()); });
    EXPECT_THAT(logged, HasSubstr("bad domain " + argument + "\n"));
}

TEST_F(Logging, AnswersForEveryLevel)
{
    PROMISE(kLogTest);
    world().AllowUnusualUse();
    for (std::uint32_t level = VQ_LOG_LEVEL_NOTICE; level <= VQ_LOG_LEVEL_ERROR; ++level) {
        for (const BOOL flag : {FALSE, TRUE}) {
            EXPECT_THAT(VQ_LogTest(kModule, level, flag, "Check"), testing::AnyOf(FALSE, TRUE)) << level;
        }
    }
}

TEST_F(Logging, WritesErrors)
{
    PROMISE(kLogErrors);
    const std::string logged = world().LoggedBy([] {
        WriteLine(VQ_LOG_LEVEL_ERROR, "Check", "a_b");
        FinishError("Check", "a_b");
    });
    EXPECT_THAT(logged, HasSubstr("bad domain a_b\n"));
}

// The host decides whether errors are dumped; the text is kept in both cases.
TEST_F(Logging, KeepsTheTextOfAnErrorUntilItIsReset)
{
    PROMISE(kLogFlexReset);
    world().AllowUnusualUse();
    EXPECT_GE(VQ_FlexLogSetFormatData("%s(%d:%s)\n", "failed", 22, "Invalid argument"), 0);
    EXPECT_STREQ(VQ_FlexLogGetFormatBuff(), "failed(22:Invalid argument)\n");
    VQ_FlexLogDataReset();
    EXPECT_STREQ(VQ_FlexLogGetFormatBuff(), "");
}

TEST_F(Logging, KeepsOnlyTheTextOfTheLastError)
{
    PROMISE(kLogFlex);
    PROMISE(kLogFlexLong);
    world().AllowUnusualUse();
    const std::string large(100000, 'x');
    EXPECT_GE(VQ_FlexLogSetFormatData("%s", large.c_str()), 0);
    EXPECT_EQ(VQ_FlexLogGetFormatBuff(), large);
    EXPECT_GE(VQ_FlexLogSetFormatData("%s", "short"), 0);
    EXPECT_STREQ(VQ_FlexLogGetFormatBuff(), "short");
    EXPECT_GE(VQ_FlexLogSetFormatData("%s", ""), 0);
    EXPECT_STREQ(VQ_FlexLogGetFormatBuff(), "");
    VQ_FlexLogDataReset();
}

TEST_F(Logging, WritesConsecutiveErrors)
{
    for (const char *const argument : {"a_b", "c_d"}) {
        const std::string logged = world().LoggedBy([&] {
            WriteLine(VQ_LOG_LEVEL_ERROR, "Check", argument);
            FinishError("Check", argument);
        });
        EXPECT_THAT(logged, HasSubstr(std::string("bad domain ") + argument + "\n"));
    }
}

class ThreadName : public ContractTest {};

TEST_F(ThreadName, FitsIntoSixteenBytes)
{
    PROMISE(kLogThreadName);
    for (const std::string name : {"x", "dns-main", "fifteen-letters"}) {
        world().NameThread(name);
        std::array<char, kNameSize + 2> buffer{};
        buffer.fill('#');
        EXPECT_GE(VQ_ThreadGetName(buffer.data(), kNameSize), 0);
        EXPECT_EQ(buffer.data(), name);
        EXPECT_EQ(buffer[kNameSize], '#');
    }
}

TEST_F(ThreadName, NameThatDoesNotFitLeavesTheBufferUnchanged)
{
    PROMISE(kLogThreadNameFits);
    world().AllowUnusualUse();
    world().NameThread("dns-main");
    for (const std::size_t size : {0U, 1U, 8U}) {
        std::array<char, kNameSize> buffer{};
        buffer.fill('#');
        EXPECT_LT(VQ_ThreadGetName(buffer.data(), size), 0) << size;
        EXPECT_EQ(std::string(buffer.begin(), buffer.end()), std::string(kNameSize, '#')) << size;
    }
}

} // namespace
} // namespace kavel::contract

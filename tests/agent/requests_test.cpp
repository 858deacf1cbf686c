#include "socket/requests.h"

#include <cerrno>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <new>
#include <system_error>

#include "requests_fixture.h"
#include "services/message_history.h"
#include "services/store.h"

namespace kavel::agent {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// ---- What is no request ----

TEST_F(RequestsTest, BytesThatAreNoRequestAreRefused)
{
    for (const Bytes &bytes : {Bytes{}, Bytes{0xFF, 0xFF}}) {
        const Answer answer = AnswerIn(Send(bytes));
        EXPECT_EQ(answer.result, -EINVAL);
        EXPECT_EQ(answer.text, "not a request");
    }
}

TEST_F(RequestsTest, AnUnknownVerbIsRefused)
{
    for (const std::int32_t verb : {0, 99, -1}) {
        const Answer answer = AnswerIn(Send(PackRequest(verb)));
        EXPECT_EQ(answer.result, -EINVAL);
        EXPECT_EQ(answer.text, "unknown verb " + std::to_string(verb));
    }
}

// ---- Apply ----

TEST_F(RequestsTest, ApplyHandsTheMessageToTheModule)
{
    module_.onConfigure = [&](const VQ_CTRL_DNSMASQ_CONFIG_PB &message) {
        EXPECT_EQ(message.DnsmasqPbCPE->vpnid, vpnId_);
        return 4;
    };
    const Answer answer = Apply(switchOff_);
    EXPECT_THAT(module_.calls, ElementsAre("configure"));
    EXPECT_EQ(answer.result, 4);
    EXPECT_EQ(answer.vpn, vpnId_);
    EXPECT_EQ(answer.text, std::nullopt);
    EXPECT_EQ(answer.reason, std::nullopt);
    EXPECT_THAT(log_.Take(), HasSubstr("NOTICE vpn " + std::to_string(vpnId_) + ": applied"));
}

TEST_F(RequestsTest, ApplyOfOtherBytesIsRefused)
{
    const Answer answer = Apply({1, 2, 3});
    EXPECT_EQ(answer.result, -EINVAL);
    EXPECT_EQ(answer.text, "not a CPE message");
    EXPECT_EQ(AnswerIn(Send(PackRequest(KAVEL__REQUEST__VERB__APPLY))).text, "not a CPE message") << "no message";
    EXPECT_THAT(module_.calls, ElementsAre());
}

TEST_F(RequestsTest, ApplyForAVpnThatIsNotConfiguredIsRefused)
{
    const Answer answer = Apply(PackCpe(unknown_, true, VQ_DNSMASQ_OP_REBOOT));
    EXPECT_EQ(answer.result, -ENOENT);
    EXPECT_EQ(answer.vpn, unknown_);
    EXPECT_EQ(answer.text, "vpn " + std::to_string(unknown_) + " is not configured");
    EXPECT_TRUE(answer.isUnknownVpn);
    EXPECT_THAT(module_.calls, ElementsAre());
}

TEST_F(RequestsTest, ApplyOfABadInterfaceNameIsRefused)
{
    const Answer answer = Apply(WithBadInterfaceName(vpnId_));
    EXPECT_EQ(answer.result, -EINVAL);
    EXPECT_EQ(answer.vpn, vpnId_);
    EXPECT_EQ(answer.text, "dnsservers[0].ifname is not an interface name");
    EXPECT_THAT(module_.calls, ElementsAre());
    EXPECT_THAT(log_.Take(), HasSubstr(": refused (-22 Invalid argument): dnsservers[0].ifname"));
}

TEST_F(RequestsTest, AReloadThatWouldSignalAnotherProcessIsRefused)
{
    box_.WritePidFile(vpnId_, "-1");
    const Answer answer = Apply(reload_);
    EXPECT_EQ(answer.result, -ESRCH);
    EXPECT_EQ(answer.vpn, vpnId_);
    EXPECT_THAT(answer.text.value_or(""), HasSubstr(" holds -1, which is not a process id"));
    EXPECT_THAT(module_.calls, ElementsAre());
    EXPECT_EQ(Apply(switchOff_).result, 0) << "that is no reload";
}

TEST_F(RequestsTest, ANamespaceThatIsNotReadyIsLogged)
{
    EXPECT_EQ(Apply(switchOff_).result, 0);
    EXPECT_THAT(log_.Take(), HasSubstr("WARNING vpn " + std::to_string(vpnId_) + ": its namespace is not ready: "));
}

TEST_F(RequestsTest, TheNamespaceOfTheBoxIsNotPrepared)
{
    EXPECT_EQ(Apply(PackCpe(0, false, VQ_DNSMASQ_OP_RELOAD)).result, 0);
    EXPECT_THAT(log_.Take(), Not(HasSubstr("not ready")));
}

TEST_F(RequestsTest, AFailureOfTheModuleCarriesItsCause)
{
    module_.onConfigure = [this](const VQ_CTRL_DNSMASQ_CONFIG_PB &) {
        host_.moduleErrors.Add("the list is too long (75:Value too large).\n");
        host_.moduleErrors.Add("nothing was applied (75:Value too large).\n");
        return -75;
    };
    const Answer answer = Apply(launch_);
    EXPECT_EQ(answer.result, -75);
    EXPECT_EQ(answer.reason, "the list is too long (75:Value too large).");
    EXPECT_EQ(answer.text, std::nullopt);
    EXPECT_TRUE(launches_.IsEmpty());
    EXPECT_FALSE(instances_.IsMeantToRun(vpnId_));
    EXPECT_THAT(log_.Take(), HasSubstr(": refused (-75 Value too large for defined data type): the list is too long"));
}

TEST_F(RequestsTest, MessagesOfEarlierCallsAreNoCause)
{
    host_.moduleErrors.Add("from before (22:Invalid argument).");
    module_.onConfigure = [](const VQ_CTRL_DNSMASQ_CONFIG_PB &) { return -22; };
    EXPECT_EQ(Apply(launch_).reason, std::nullopt);
}

TEST_F(RequestsTest, AnExceptionBecomesARefusal)
{
    module_.onConfigure = [](const VQ_CTRL_DNSMASQ_CONFIG_PB &) -> VQ_ERR_T { throw std::bad_alloc(); };
    EXPECT_EQ(Apply(switchOff_).result, -ENOMEM);
    module_.onConfigure = [](const VQ_CTRL_DNSMASQ_CONFIG_PB &) -> VQ_ERR_T {
        throw std::system_error(EMFILE, std::system_category());
    };
    EXPECT_EQ(Apply(switchOff_).result, -EMFILE);
    module_.onConfigure = [](const VQ_CTRL_DNSMASQ_CONFIG_PB &) -> VQ_ERR_T { throw std::runtime_error("x"); };
    EXPECT_EQ(Apply(switchOff_).result, -EIO);
    EXPECT_THAT(log_.Take(), HasSubstr("ERROR control socket: a request failed: x"));
}

// ---- The revision ----

TEST_F(RequestsTest, TheStatusHasTheRevisionInForce)
{
    for (const std::string &revision : {std::string("v1"), std::string(64, 'r'), std::string("Gr\u00fc\u00dfe 7")}) {
        EXPECT_EQ(Apply(switchOff_, revision).result, 0);
        const auto &answers = Send(PackRequest(KAVEL__REQUEST__VERB__STATUS, vpnId_));
        EXPECT_TRUE(RunUntilAnswered(answers));
        EXPECT_EQ(AnswerIn(answers).vpns.at(0).revision, revision);
    }
    EXPECT_EQ(Apply(switchOff_).result, 0);
    const auto &answers = Send(PackRequest(KAVEL__REQUEST__VERB__STATUS, vpnId_));
    EXPECT_TRUE(RunUntilAnswered(answers));
    EXPECT_EQ(AnswerIn(answers).vpns.at(0).revision, std::nullopt) << "the last message had none";
}

TEST_F(RequestsTest, ARevisionThatCannotBeShownIsRefused)
{
    for (const std::string &revision : {std::string(), std::string(65, 'r'), std::string("a\nb"),
                                        std::string("\x1b[1m"), std::string("\xff"), std::string("\u202eabc")}) {
        const Answer answer = Apply(switchOff_, revision);
        EXPECT_EQ(answer.result, -EINVAL) << revision.size();
        EXPECT_EQ(answer.vpn, vpnId_);
        EXPECT_EQ(answer.text, "revision: it has not 1 to 64 printable characters");
    }
    EXPECT_THAT(module_.calls, ElementsAre());
}

// ---- What is meant to run after it ----

TEST_F(RequestsTest, AnAppliedMessageSaysWhatIsMeantToRun)
{
    const FakeInstance instance(box_, vpnId_);
    WritePid(vpnId_, instance);
    EXPECT_EQ(Apply(reload_).text, std::nullopt);
    EXPECT_TRUE(instances_.IsMeantToRun(vpnId_));
    (void)Apply(switchOff_);
    EXPECT_FALSE(instances_.IsMeantToRun(vpnId_));
}

TEST_F(RequestsTest, AReloadWithoutAnInstanceHasATextButIsApplied)
{
    const Answer answer = Apply(reload_);
    EXPECT_EQ(answer.result, 0);
    EXPECT_EQ(answer.text, "no instance runs, and a reload starts none");
    EXPECT_TRUE(instances_.IsMeantToRun(vpnId_));
}

TEST_F(RequestsTest, AnInstanceThatStillRunsAfterItIsSwitchedOffHasAText)
{
    const FakeInstance instance(box_, vpnId_);
    WritePid(vpnId_, instance);
    const Answer answer = Apply(switchOff_);
    EXPECT_EQ(answer.result, 0);
    EXPECT_EQ(answer.text, "the instance still runs");
}

// ---- The store ----

class RequestsWithStoreTest : public RequestsTest {
  protected:
    RequestsWithStoreTest() : RequestsTest([](Config &config) { config.persistence = true; }) {}

    void BreakTheStore() const
    {
        std::filesystem::remove_all(box_.Path("/store"));
        box_.Write("/store", "a file in the place of the directory");
    }

    // What the module does with the store, and its result.
    void OnConfigure(const std::optional<std::string> &stored, VQ_ERR_T result)
    {
        module_.onConfigure = [this, stored, result](const VQ_CTRL_DNSMASQ_CONFIG_PB &) {
            (void)VQ_SqliteDnsMasqConfOp(static_cast<BOOL>(vpnId_), nullptr, VQ_SQL_CONF_OP_DEL,
                                         VQ_SQL_CONF_CPE_DNSMASQ);
            if (stored) {
                std::string text = *stored;
                (void)VQ_SqliteDnsMasqConfOp(static_cast<BOOL>(vpnId_), text.data(), VQ_SQL_CONF_OP_ADD,
                                             VQ_SQL_CONF_CPE_DNSMASQ);
            }
            return result;
        };
    }
};

TEST_F(RequestsWithStoreTest, ARowThatTheModuleRemovesIsGoneAfterTheApply)
{
    host_.store.Put(vpnId_, "old", VQ_SQL_CONF_CPE_DNSMASQ);
    OnConfigure(std::nullopt, 0);
    EXPECT_EQ(Apply(switchOff_).text, std::nullopt);
    EXPECT_EQ(host_.store.ReadText(vpnId_), std::nullopt);
    EXPECT_EQ(Apply(switchOff_).text, std::nullopt) << "no row to remove is no failure";
}

TEST_F(RequestsWithStoreTest, ARowThatTheModuleReplacesIsTheNewOne)
{
    host_.store.Put(vpnId_, "old", VQ_SQL_CONF_CPE_DNSMASQ);
    OnConfigure("new", 0);
    EXPECT_EQ(Apply(switchOff_).text, std::nullopt);
    EXPECT_EQ(host_.store.ReadText(vpnId_), "new");
}

TEST_F(RequestsWithStoreTest, TellsThatWhatWasStoredComesBack)
{
    BreakTheStore();
    OnConfigure(std::nullopt, 0);
    const Answer answer = Apply(switchOff_);
    EXPECT_EQ(answer.result, 0);
    EXPECT_THAT(answer.notes, ElementsAre("what was stored before is still stored, until the store works again"));
}

TEST_F(RequestsWithStoreTest, TellsThatAMessageIsInForceAlthoughItCouldNotBeStored)
{
    BreakTheStore();
    OnConfigure("new", -EIO);
    const Answer answer = Apply(reload_);
    EXPECT_EQ(answer.result, -EIO);
    EXPECT_THAT(answer.reason.value_or(""),
                HasSubstr("; the message is in force all the same, and what was stored before is still stored"));
    EXPECT_TRUE(instances_.IsMeantToRun(vpnId_));
}

TEST_F(RequestsWithStoreTest, AMessageThatCouldNotBeStoredStillLaunches)
{
    BreakTheStore();
    OnConfigure("new", -EIO);
    const auto &answers = SendApply(launch_);
    EXPECT_TRUE(answers.empty());
    EXPECT_TRUE(launches_.IsPending(vpnId_));
    EXPECT_TRUE(RunUntilAnswered(answers));
    EXPECT_EQ(AnswerIn(answers).result, -EIO);
}

TEST_F(RequestsWithStoreTest, AFailureBeforeTheStoreIsUsedLeavesTheRow)
{
    host_.store.Put(vpnId_, "old", VQ_SQL_CONF_CPE_DNSMASQ);
    module_.onConfigure = [](const VQ_CTRL_DNSMASQ_CONFIG_PB &) { return -22; };
    const Answer answer = Apply(launch_);
    EXPECT_EQ(answer.reason, std::nullopt);
    EXPECT_EQ(host_.store.ReadText(vpnId_), "old");
    EXPECT_TRUE(launches_.IsEmpty());
}

TEST_F(RequestsWithStoreTest, ListsAndShowsTheStore)
{
    host_.conversions.DnsmasqStrToConf = ConvertStoredText;
    const std::string text = "on " + std::to_string(vpnId_);
    host_.store.Put(vpnId_, text, VQ_SQL_CONF_CPE_DNSMASQ);
    const Answer list = AnswerIn(Send(PackRequest(KAVEL__REQUEST__VERB__STORE_LIST)));
    ASSERT_EQ(list.stored.size(), 1U);
    EXPECT_EQ(list.stored.front().vpn, vpnId_);
    EXPECT_EQ(AnswerIn(Send(PackRequest(KAVEL__REQUEST__VERB__STORE_SHOW, vpnId_))).storedText, text);
}

TEST_F(RequestsWithStoreTest, EveryMessageIsInTheHistory)
{
    OnConfigure(std::nullopt, 0);
    EXPECT_EQ(Apply(switchOff_, "v1").result, 0);
    module_.onConfigure = [](const VQ_CTRL_DNSMASQ_CONFIG_PB &) { return -EIO; };
    EXPECT_EQ(Apply(launch_).result, -EIO);
    const std::vector<HistoryEntry> entries = host_.store.ReadHistory(vpnId_);
    ASSERT_EQ(entries.size(), 2U);
    const HistoryEntry &newest = entries.front();
    const HistoryEntry &oldest = entries.back();
    EXPECT_EQ(oldest.peer, kSender);
    EXPECT_EQ(oldest.revision, "v1");
    EXPECT_EQ(oldest.result, 0);
    EXPECT_EQ(oldest.outcome, "applied");
    EXPECT_EQ(oldest.message, switchOff_);
    EXPECT_EQ(newest.revision, std::nullopt);
    EXPECT_EQ(newest.result, -EIO);
    EXPECT_THAT(newest.outcome, StartsWith("refused: "));
    EXPECT_THAT(host_.store.ReadHistory(other_), ElementsAre());
}

// ---- Directories ----

class DirectoryTest : public RequestsTest, public testing::WithParamInterface<std::int32_t> {};

TEST_P(DirectoryTest, NeedsAConfiguredVpn)
{
    const Answer none = AnswerIn(Send(PackRequest(GetParam())));
    EXPECT_EQ(none.result, -EINVAL);
    EXPECT_EQ(none.text, "no vpn is named");
    const Answer box = AnswerIn(Send(PackRequest(GetParam(), 0)));
    EXPECT_EQ(box.result, -EINVAL);
    EXPECT_EQ(box.text, "vpn 0 is the box itself and has no directory of its own");
    const Answer unknown = AnswerIn(Send(PackRequest(GetParam(), unknown_)));
    EXPECT_EQ(unknown.result, -ENOENT);
    EXPECT_EQ(unknown.text, "vpn " + std::to_string(unknown_) + " is not configured");
    EXPECT_TRUE(unknown.isUnknownVpn);
    EXPECT_THAT(module_.calls, ElementsAre());
}

TEST_P(DirectoryTest, CallsTheModule)
{
    const bool isInit = GetParam() == KAVEL__REQUEST__VERB__VPN_INIT;
    const Answer answer = AnswerIn(Send(PackRequest(GetParam(), vpnId_)));
    EXPECT_EQ(answer.result, 0);
    EXPECT_EQ(answer.vpn, vpnId_);
    EXPECT_THAT(module_.calls, ElementsAre((isInit ? "init " : "release ") + std::to_string(vpnId_)));
    EXPECT_THAT(log_.Take(), HasSubstr(isInit ? ": directory created" : ": directory removed"));
}

TEST_P(DirectoryTest, GivesTheModulesFailure)
{
    module_.directoryResult = -ENOSPC;
    EXPECT_EQ(AnswerIn(Send(PackRequest(GetParam(), vpnId_))).result, -ENOSPC);
}

INSTANTIATE_TEST_SUITE_P(Verbs, DirectoryTest,
                         testing::Values(KAVEL__REQUEST__VERB__VPN_INIT, KAVEL__REQUEST__VERB__VPN_RELEASE));

TEST_F(RequestsTest, TheDirectoryOfARunningInstanceIsNotRemoved)
{
    const FakeInstance instance(box_, vpnId_);
    WritePid(vpnId_, instance);
    const Answer answer = AnswerIn(Send(PackRequest(KAVEL__REQUEST__VERB__VPN_RELEASE, vpnId_)));
    EXPECT_EQ(answer.result, -EBUSY);
    EXPECT_EQ(answer.text, "the instance of vpn " + std::to_string(vpnId_) + " is running");
    EXPECT_THAT(module_.calls, ElementsAre());
    EXPECT_EQ(AnswerIn(Send(PackRequest(KAVEL__REQUEST__VERB__VPN_INIT, vpnId_))).result, 0);
}

// ---- Repair ----

TEST_F(RequestsTest, ARepairOfAVpnThatIsNotConfiguredIsRefused)
{
    const Answer answer = AnswerIn(Send(PackRequest(KAVEL__REQUEST__VERB__REPAIR, unknown_)));
    EXPECT_EQ(answer.result, -ENOENT);
    EXPECT_EQ(answer.text, "vpn " + std::to_string(unknown_) + " is not configured");
    EXPECT_TRUE(answer.isUnknownVpn);
}

TEST_F(RequestsTest, ARepairOfAllTellsTheProblemsOfEachVpn)
{
    EXPECT_EQ(AnswerIn(Send(PackRequest(KAVEL__REQUEST__VERB__REPAIR))).text, std::nullopt) << "nothing is in force";
    for (const std::uint32_t vpnId : {vpnId_, other_}) {
        EXPECT_EQ(Apply(PackCpe(vpnId, false, VQ_DNSMASQ_OP_RELOAD)).result, 0);
    }
    const auto problem = [this](std::uint32_t vpnId) {
        return "vpn " + std::to_string(vpnId) + ": namespace \"" + host_.config.Find(vpnId)->netns +
               "\" does not exist";
    };
    const Answer answer = AnswerIn(Send(PackRequest(KAVEL__REQUEST__VERB__REPAIR)));
    EXPECT_EQ(answer.result, 0);
    EXPECT_EQ(answer.text, problem(vpnId_) + "; " + problem(other_));
    EXPECT_THAT(answer.notes, ElementsAre());
    EXPECT_EQ(AnswerIn(Send(PackRequest(KAVEL__REQUEST__VERB__REPAIR, other_))).text, problem(other_));
}

// ---- Status ----

TEST_F(RequestsTest, StatusOfAVpnThatIsNotConfiguredIsRefused)
{
    const Answer answer = AnswerIn(Send(PackRequest(KAVEL__REQUEST__VERB__STATUS, unknown_)));
    EXPECT_EQ(answer.result, -ENOENT);
    EXPECT_EQ(answer.vpn, unknown_);
    EXPECT_EQ(answer.text, "vpn " + std::to_string(unknown_) + " is not configured");
    EXPECT_TRUE(answer.isUnknownVpn);
}

TEST_F(RequestsTest, StatusIsAnsweredByTheLoop)
{
    const auto &answers = Send(PackRequest(KAVEL__REQUEST__VERB__STATUS, vpnId_));
    EXPECT_TRUE(answers.empty());
    EXPECT_TRUE(RunUntilAnswered(answers));
    const Answer answer = AnswerIn(answers);
    EXPECT_EQ(answer.result, 0);
    ASSERT_EQ(answer.vpns.size(), 1U);
    EXPECT_EQ(answer.vpns.front().fields.vpn, vpnId_);
}

TEST_F(RequestsTest, StatusHasTheAgent)
{
    const auto &answers = Send(PackRequest(KAVEL__REQUEST__VERB__STATUS, vpnId_));
    EXPECT_TRUE(RunUntilAnswered(answers));
    const auto agent = AnswerIn(answers).agent;
    ASSERT_TRUE(agent);
    EXPECT_EQ(agent->version, "1.2");
    EXPECT_EQ(agent->restarts, 3U);
}

TEST_F(RequestsTest, StatusOfAllBeginsWithTheBox)
{
    instances_.SetMeantToRun(0, true);
    const auto &answers = Send(PackRequest(KAVEL__REQUEST__VERB__STATUS));
    EXPECT_TRUE(RunUntilAnswered(answers));
    const Answer answer = AnswerIn(answers);
    ASSERT_GE(answer.vpns.size(), 4U);
    EXPECT_EQ(answer.vpns[0].fields.vpn, 0U);
    for (std::uint32_t number = 1; number <= 3; ++number) {
        EXPECT_EQ(answer.vpns[number].fields.vpn, TestVpn(number));
    }
}

TEST_F(RequestsTest, SeveralStatusRequestsAreAnsweredOnceEach)
{
    const auto &first = Send(PackRequest(KAVEL__REQUEST__VERB__STATUS, vpnId_));
    const auto &second = Send(PackRequest(KAVEL__REQUEST__VERB__STATUS, other_));
    EXPECT_TRUE(RunUntil(loop_, [&] { return !first.empty() && !second.empty(); }));
    DispatchReady(loop_);
    EXPECT_EQ(AnswerIn(first).vpns.at(0).fields.vpn, vpnId_);
    EXPECT_EQ(AnswerIn(second).vpns.at(0).fields.vpn, other_);
}

TEST_F(RequestsTest, StatusRequestsBeyondTheLimitAreRefused)
{
    constexpr std::size_t kLimit = 64;
    std::vector<const std::vector<Answer> *> answers;
    for (std::size_t i = 0; i <= kLimit; ++i) {
        answers.push_back(&Send(PackRequest(KAVEL__REQUEST__VERB__STATUS, vpnId_)));
    }
    EXPECT_EQ(AnswerIn(*answers.back()).result, -EBUSY);
    EXPECT_TRUE(RunUntil(loop_, [&] { return !answers.front()->empty() && !answers[kLimit - 1]->empty(); }));
    EXPECT_EQ(AnswerIn(*answers.front()).result, 0);
}

// ---- A POP ----

class PopRequestsTest : public RequestsTest {
  protected:
    PopRequestsTest() : RequestsTest([](Config &config) { config.platform = Platform::kPop; }) {}
};

TEST_F(PopRequestsTest, TakesThePopMessage)
{
    module_.onConfigure = [](const VQ_CTRL_DNSMASQ_CONFIG_PB &message) {
        EXPECT_FALSE(message.DnsmasqPbPOP->enable);
        return 0;
    };
    const Answer answer = Apply(PackPop(false));
    EXPECT_EQ(answer.result, 0);
    EXPECT_EQ(answer.vpn, 0U);
    EXPECT_THAT(module_.calls, ElementsAre("configure"));
}

TEST_F(PopRequestsTest, RefusesTheCpeMessage)
{
    EXPECT_EQ(Apply(launch_).text, "not a POP message");
    EXPECT_EQ(AnswerIn(Send(PackRequest(KAVEL__REQUEST__VERB__CHECK, std::nullopt, launch_))).text,
              "not a POP message");
}

// ---- Why ----

TEST_F(RequestsTest, WhyOfAVpnThatIsNotConfiguredIsRefused)
{
    const Answer answer = AnswerIn(Send(PackRequest(KAVEL__REQUEST__VERB__WHY, unknown_)));
    EXPECT_EQ(answer.result, -ENOENT);
    EXPECT_EQ(answer.text, "vpn " + std::to_string(unknown_) + " is not configured");
}

TEST_F(RequestsTest, WhyTellsWhatIsWrong)
{
    instances_.SetMeantToRun(vpnId_, true);
    const auto &answers = Send(PackRequest(KAVEL__REQUEST__VERB__WHY, vpnId_));
    ASSERT_TRUE(RunUntil(loop_, [&] { return !answers.empty(); }));
    ASSERT_EQ(answers.front().findingsOf.size(), 1U);
    EXPECT_EQ(answers.front().findingsOf.front().problems.front().fault, Fault::kNamespaceMissing);
    EXPECT_TRUE(answers.front().vpns.empty());
}

} // namespace
} // namespace kavel::agent

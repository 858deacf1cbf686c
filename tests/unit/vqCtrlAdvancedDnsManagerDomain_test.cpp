#include "moduleTest.h"

namespace {

using testing::ElementsAre;

constexpr const char *kPattern = "^[a-zA-Z0-9]{1,63}([\\.\\-][a-zA-Z0-9]{1,63})*\\.[a-zA-Z]{2,63}$";

class DomainRule : public ModuleTest {
  protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        Host.Calls.Record(fakehost::EntryKind::Text, true);
    }
};

TEST_F(DomainRule, Accepts)
{
    for (const std::string &Name :
         {std::string("example.com"), std::string("a-b.c.example.org"), std::string("A.bc"), std::string("1.co"),
          std::string("1.2.3.xn"), std::string("EXAMPLE.Com"), std::string(63, 'a') + ".com",
          "a." + std::string(63, 'z'), "a-b-c-d." + std::string(63, '1') + ".info", DomainOfLength(254)}) {
        EXPECT_EQ(VQCtrl_ValidateDomain(Name.c_str()), TRUE) << Name;
    }
}

TEST_F(DomainRule, Refuses)
{
    for (const std::string &Name : {std::string(),
                                    std::string("example"),
                                    std::string("example.c"),
                                    std::string("example.com."),
                                    std::string("ex_ample.com"),
                                    std::string("example.123"),
                                    std::string("example.c0m"),
                                    std::string(".com"),
                                    std::string("."),
                                    std::string("-a.com"),
                                    std::string("a-.com"),
                                    std::string(".a.com"),
                                    std::string("a..com"),
                                    std::string("a--b.com"),
                                    std::string("a-.b.com"),
                                    std::string("a.-b.com"),
                                    std::string("a.b-com"),
                                    std::string("a.com-"),
                                    std::string("a.com\n"),
                                    std::string("a\t.com"),
                                    std::string("\xc3\xa4.com"),
                                    std::string("a/b.com"),
                                    std::string("*.example.com"),
                                    std::string("a,b.com"),
                                    std::string("a\\.com"),
                                    std::string(64, 'a') + ".com",
                                    "a." + std::string(64, 'z'),
                                    DomainOfLength(255),
                                    DomainOfLength(256)}) {
        EXPECT_EQ(VQCtrl_ValidateDomain(Name.c_str()), FALSE) << Name;
    }
}

TEST_F(DomainRule, ANullNameIsRefused)
{
    EXPECT_EQ(VQCtrl_ValidateDomain(nullptr), FALSE);
}

TEST_F(DomainRule, ThePatternIsCompiledMatchedAndReleasedOnEveryCall)
{
    constexpr int Extended = REG_EXTENDED;
    const std::string Compile = "regcomp(" + fakehost::Quote(kPattern) + ", " + std::to_string(Extended) + ")";
    VQCtrl_ValidateDomain("example.com");
    VQCtrl_ValidateDomain("example");
    EXPECT_THAT(Host.Calls.Trace(), ElementsAre(Compile, "regexec(\"example.com\", 0, 0)", "regfree()", Compile,
                                                "regexec(\"example\", 0, 0)", "regfree()"));
}

// The known leak that is kept: the pattern is compiled before the check for a blank.
TEST_F(DomainRule, ABlankIsRefusedAfterTheCompilationAndLeaksThePattern)
{
    for (const char *Name : {"exa mple.com", " example.com", "example.com ", " "}) {
        EXPECT_EQ(VQCtrl_ValidateDomain(Name), FALSE);
    }
    EXPECT_EQ(Host.Regex.Compiled(), 4U);
    EXPECT_EQ(Host.Regex.Unreleased(), 4U);
    EXPECT_THAT(Host.Calls.Named("regexec"), testing::IsEmpty());
    EXPECT_THAT(Host.Calls.Named("regfree"), testing::IsEmpty());
    Host.Regex.ExpectUnreleased(4);
}

TEST_F(DomainRule, WithoutACompiledPatternNoNameIsAccepted)
{
    Host.Failures.Fail("regcomp", -12);
    EXPECT_EQ(VQCtrl_ValidateDomain("example.com"), FALSE);
}

TEST_F(DomainRule, NothingIsLogged)
{
    VQCtrl_ValidateDomain("example.com");
    VQCtrl_ValidateDomain("no");
    EXPECT_THAT(Host.Log.Steps(), testing::IsEmpty());
}

} // namespace

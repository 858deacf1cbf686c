#include "host.h"

#include <cstdio>
#include <cstdlib>

namespace fakehost {

namespace {

Host *s_Current = nullptr;

} // namespace

Host::Host()
{
    if (s_Current != nullptr) {
        std::fputs("fakehost: a second host beside a living one\n", stderr);
        std::abort();
    }
    s_Current = this;
}

Host::~Host()
{
    if (!m_Verified) {
        const std::vector<std::string> Problems = Verify();
        for (const std::string &Each : Problems) {
            static_cast<void>(std::fprintf(stderr, "fakehost: %s\n", Each.c_str()));
        }
        if (!Problems.empty()) {
            std::abort();
        }
    }
    s_Current = nullptr;
}

Host *Host::CurrentOrNull()
{
    return s_Current;
}

Host &Host::Current()
{
    if (s_Current == nullptr) {
        std::fputs("fakehost: a service was called without a host\n", stderr);
        std::abort();
    }
    return *s_Current;
}

void Host::RecordNothing()
{
    Calls.RecordNothing();
    Log.KeepLines(false);
    Files.KeepContent(false);
    Memory.FillFreshBytes(false);
}

std::vector<std::string> Host::Verify()
{
    Log.RequireIdle("the end");
    Memory.ReportLeaks();
    Files.ReportLeaks();
    Netns.ReportLeaks();
    Netio.ReportLeaks();
    Rows.ReportLeaks();
    Regex.ReportLeaks();
    Json.ReportLeaks();
    m_Verified = true;
    return std::exchange(m_Violations, {});
}

int Host::Success(const char *Name) const
{
    const auto Found = SuccessResults.find(Name);
    return Found == SuccessResults.end() ? 0 : Found->second;
}

void Host::RunHook(const char *Name)
{
    const auto Found = Hooks.find(Name);
    if (Found != Hooks.end()) {
        Found->second();
    }
}

} // namespace fakehost

// The status of VPNs, for the tests.
#ifndef KAVEL_TESTS_CTL_STATUS_SAMPLES_H
#define KAVEL_TESTS_CTL_STATUS_SAMPLES_H

#include <cstdint>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "control.pb-c.h"

namespace kavel::ctl {

// A status, and the owner of the strings in it.
struct SampleVpn {
    explicit SampleVpn(std::uint32_t id, std::string ownNamespace) : name(std::move(ownNamespace))
    {
        kavel__vpn_status__init(&status);
        status.vpn = id;
        status.namespace_ = name.data();
    }

    void AddProblem(const std::string &problem)
    {
        texts.push_back(std::make_unique<std::string>(problem));
        Kavel__Finding &finding = *findings.emplace_back(std::make_unique<Kavel__Finding>());
        kavel__finding__init(&finding);
        finding.code = code.data();
        finding.text = texts.back()->data();
        finding.remedy = remedy.data();
        pointers.push_back(&finding);
        status.problems = pointers.data();
        status.n_problems = pointers.size();
    }

    Kavel__VpnStatus status{};
    std::string name;
    std::vector<std::unique_ptr<std::string>> texts;
    std::string code = "a-code";
    std::string remedy = "this";
    std::vector<std::unique_ptr<Kavel__Finding>> findings;
    std::vector<Kavel__Finding *> pointers;
};

inline void MakeRunning(SampleVpn &vpn, std::int32_t pid)
{
    Kavel__VpnStatus &status = vpn.status;
    status.meant = status.pid_file = status.alive = status.is_dnsmasq = status.in_namespace = status.answers = 1;
    status.pid = pid;
    status.uptime_seconds = 192;
    status.memory_bytes = 1'900'000;
    status.hosts = 3;
    status.mx_hosts = 1;
    status.servers = 2;
    status.forwards = 1;
    status.routes = 3;
    status.has_stored = status.stored = status.has_stored_enable = status.stored_enable = 1;
    status.has_rule = status.rule = 1;
}

class StatusTest : public testing::Test {
  protected:
    StatusTest()
    {
        MakeRunning(running_, 4242);
        MakeRunning(failed_, 99);
        failed_.status.answers = 0;
        failed_.status.stored = failed_.status.has_stored_enable = failed_.status.rule = 0;
        stopped_.status.has_stopped = stopped_.status.stopped = 1;
        failed_.AddProblem("does not answer on port 53");
        failed_.AddProblem("runs in another\nnetwork namespace");
    }

    SampleVpn stopped_{0, "-"};
    SampleVpn running_{7, "vpn_7"};
    SampleVpn failed_{4294967295, "vpn_4294967295"};
    std::vector<const Kavel__VpnStatus *> all_{&stopped_.status, &running_.status, &failed_.status};
};

} // namespace kavel::ctl

#endif

// The contract on the fake host.
#include <algorithm>
#include <array>
#include <string_view>

#include "host.h"
#include "world.h"

namespace kavel::contract {
namespace {

constexpr pid_t kFirstPid = 4000;

class FakeWorld : public World {
  public:
    FakeWorld()
    {
        for (const std::uint32_t vpn : {kOtherVpn, kLastVpn}) {
            host_.Netio.SetLans(vpn, {{"lan0"}});
        }
        host_.Netio.SetLans(kVpn, {{"lan0", "lan1"}});
        host_.Netio.SetWans(kVpn, {{false, true}});
        host_.Netns.Forget(kUnknownVpn);
        host_.Rules.PlatformCustomer = kCustomer;
        host_.Rules.CustomerOfVpn[kVpn] = kCustomerOfVpn;
        host_.Rows.Enabled = true;
    }

    std::optional<std::string> ReadFile(const std::string &path) override { return host_.Files.Content(path); }
    void PutFile(const std::string &path, const std::string &content) override { host_.Files.Put(path, content); }
    void MakeDirectory(const std::string &path) override { host_.Files.PutDirectory(path); }
    bool IsDirectory(const std::string &path) override { return host_.Files.IsDirectory(path); }
    bool IsReadableByEveryone(const std::string &path) override { return host_.Files.Exists(path); }
    std::function<std::string()> KeepOpen(const std::string &path) override
    {
        return [content = host_.Files.Content(path).value_or("")] { return content; };
    }
    std::vector<std::string> FilesIn(const std::string &directory) override
    {
        const std::string below = directory + '/';
        std::vector<std::string> names;
        for (const auto &[path, content] : host_.Files.All()) {
            if (path.starts_with(below) && path.find('/', below.size()) == std::string::npos) {
                names.push_back(path.substr(below.size()));
            }
        }
        return names;
    }

    pid_t StartInstance(bool /*endsWhenAsked*/) override
    {
        host_.Proc.AddInstance(++lastPid_, kVpn);
        return lastPid_;
    }
    pid_t EndedProcess() override { return ++lastPid_; }
    pid_t Zombie() override
    {
        host_.Proc.AddName(std::to_string(++lastPid_));
        host_.Files.Put("/proc/" + std::to_string(lastPid_) + "/cmdline", "");
        return lastPid_;
    }
    bool IsRunning(pid_t pid) override { return host_.Proc.IsAlive(pid); }

    std::uint32_t CurrentVpn() override { return host_.Netns.Current(); }
    void Listen(std::uint32_t vpn, std::uint16_t port) override { host_.Netns.PutListener(vpn, port); }
    std::vector<std::string> Routes(std::uint32_t vpn, std::uint32_t table) override
    {
        std::vector<std::string> routes = host_.Routes.Of(vpn, table);
        std::ranges::sort(routes);
        return routes;
    }
    std::vector<std::string> Rules() override
    {
        std::vector<std::string> rules;
        for (const auto &[key, rule] : host_.Rules.InForce()) {
            const auto &[table, zone, id, customer] = key;
            const std::string name = table == VQ_CONF_RULE_TBL_TYPE_DNS ? "dns" : "dnat";
            rules.push_back(name + " zone " + std::to_string(zone) + " id " + std::to_string(id) + " customer " +
                            std::to_string(customer));
        }
        std::ranges::sort(rules);
        return rules;
    }

    void NameThread(const std::string &name) override { host_.Log.ThreadName = name; }
    std::string LoggedBy(const std::function<void()> &work) override
    {
        host_.Log.Clear();
        work();
        std::string text;
        for (const std::vector<fakehost::LogLine> *lines : {&host_.Log.Lines(), &host_.Log.Dumps()}) {
            for (const fakehost::LogLine &line : *lines) {
                text += line.LevelText + line.ModuleName + line.Thread + line.Function + line.Message;
            }
        }
        return text;
    }

    void AllowUnusualUse() override { mayBeStrict_ = false; }
    std::vector<std::string> Complaints() override
    {
        std::vector<std::string> complaints = host_.Verify();
        return mayBeStrict_ ? complaints : std::vector<std::string>{};
    }
    void CleanUp() override {}

  private:
    fakehost::Host host_;
    pid_t lastPid_ = kFirstPid;
    bool mayBeStrict_ = true;
};

} // namespace

std::unique_ptr<World> MakeWorld()
{
    return std::make_unique<FakeWorld>();
}

} // namespace kavel::contract

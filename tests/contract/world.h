// What a contract test can prepare and inspect, apart from calling the services. The tests are the same for every host;
// each host has its own World.
#ifndef CONTRACT_WORLD_H
#define CONTRACT_WORLD_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kavel::contract {

// The VPNs of the box. The first has the LAN interfaces lan0 (10.7.0.1/24) and lan1, two WANs of which the second
// carries system routes, and a customer of its own. The others have lan0 (10.8.0.1/24 in the second), no WAN and no
// customer.
inline constexpr std::uint32_t kVpn = 7;
inline constexpr std::uint32_t kOtherVpn = 8;
inline constexpr std::uint32_t kLastVpn = 0xFFFFFFFFU;
// A VPN that the box does not have.
inline constexpr std::uint32_t kUnknownVpn = 99;

inline constexpr std::uint32_t kCustomer = 1;
inline constexpr std::uint32_t kCustomerOfVpn = 42;

// An existing directory that contains only a directory named dnsmasq.d.
inline constexpr const char *kDirectory = "/etc/kavel/dnsmasq";

inline std::string Below(const std::string &name)
{
    return std::string(kDirectory) + '/' + name;
}

class World {
  public:
    World() = default;
    World(const World &) = delete;
    World &operator=(const World &) = delete;
    virtual ~World() = default;

    // The content; nothing if the file does not exist.
    virtual std::optional<std::string> ReadFile(const std::string &path) = 0;
    virtual void PutFile(const std::string &path, const std::string &content) = 0;
    virtual void MakeDirectory(const std::string &path) = 0;
    virtual bool IsDirectory(const std::string &path) = 0;
    // Whether every user may read the file.
    virtual bool IsReadableByEveryone(const std::string &path) = 0;
    // Opens the file. The function returns all that this opened file contains when it is called.
    virtual std::function<std::string()> KeepOpen(const std::string &path) = 0;
    // Names of the files in a directory, sorted.
    virtual std::vector<std::string> FilesIn(const std::string &directory) = 0;

    // Starts a DNS instance of kVpn. Without `endsWhenAsked` it ignores SIGTERM.
    virtual pid_t StartInstance(bool endsWhenAsked) = 0;
    // The id of a process that has exited and was reaped.
    virtual pid_t EndedProcess() = 0;
    // A process that has exited and was not reaped.
    virtual pid_t Zombie() = 0;
    virtual bool IsRunning(pid_t pid) = 0;

    // The VPN whose namespace the calling thread is in; 0: the box's own.
    virtual std::uint32_t CurrentVpn() = 0;
    // Opens a listening TCP socket in the namespace of a VPN, on every address.
    virtual void Listen(std::uint32_t vpn, std::uint16_t port) = 0;
    // Of VPN 0: of the box. "10.1.1.1/32 dev lan0", "10.2.0.0/24 via 10.7.0.2 dev lan0 via 10.7.0.3 dev lan0": sorted.
    virtual std::vector<std::string> Routes(std::uint32_t vpn, std::uint32_t table) = 0;
    // "dns zone 0 id 9 customer 42": sorted.
    virtual std::vector<std::string> Rules() = 0;

    virtual void NameThread(const std::string &name) = 0;
    // The log output of `work`.
    virtual std::string LoggedBy(const std::function<void()> &work) = 0;

    // A host may be stricter with its callers than the contract requires. Switches such checks off.
    virtual void AllowUnusualUse() = 0;
    // Violations of the contract by the callers.
    virtual std::vector<std::string> Complaints() = 0;
    // Removes what a test has left in the box.
    virtual void CleanUp() = 0;
};

// There is only one World at a time.
std::unique_ptr<World> MakeWorld();

} // namespace kavel::contract

#endif

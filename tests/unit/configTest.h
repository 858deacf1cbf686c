// Fixtures for tests of the message and recovery entries: a box with one VPN.
#ifndef CONFIG_TEST_H
#define CONFIG_TEST_H

#include <string>
#include <vector>

#include "cpeMessage.h"
#include "moduleTest.h"
#include "popMessage.h"

// A CPE with VPN 7, which has its directory, one LAN and one WAN without system routes.
class ConfigTest : public ModuleTest {
  protected:
    // The beginnings of the error lines of the apply sequence and of the message entry.
    inline static const std::string kApplySite = "4 _VQCtrl_SetAdvancedDnsConfiguration: ";
    inline static const std::string kEntrySite = "4 VQCtrl_ConfigAdvancedDns: ";
    static constexpr pid_t kPid = 1234;

    void SetUp() override;

    // Adds one entry to each list.
    void FillMessage();
    void AskForPersistence(bool Flag);
    void RunInstance(uint32_t VpnId = 7);
    // Installs the DNS-table rule of the VPN, with the customer of the platform.
    void SteerToInstance(uint32_t VpnId = 7);
    VQ_ERR_T Configure();

    [[nodiscard]] static std::string Written(const std::string &Name) { return "/etc/kavel/dnsmasq/vpn_7/" + Name; }
    // Error lines only.
    [[nodiscard]] std::vector<std::string> Errors() const;

    CpeMessage Message{7};
};

// A POP with a running instance of the box itself.
class PopConfigTest : public ConfigTest {
  protected:
    static constexpr uint32_t kLocalIp = Ip(10, 9, 8, 7);

    void SetUp() override;

    VQ_ERR_T Configure(PopMessage &Pop);
    VQ_ERR_T Enable();
    VQ_ERR_T Disable();
};

#endif

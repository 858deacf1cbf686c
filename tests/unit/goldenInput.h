// Reads the input of a golden case: a CPE or POP message, a record or stored rows, and the state of the box.
//
// An element {"repeat": N, "item": X} of a list means N copies of X. In texts, "(x*63)" is 63 times x, and "#" is the
// number of the copy, from 0. The address "10.0.0.0+#" is 10.0.0.0 plus the number of the copy.
#ifndef GOLDEN_INPUT_H
#define GOLDEN_INPUT_H

#include <filesystem>
#include <memory>
#include <string>

#include <json_object.h>

#include "cpeMessage.h"
#include "host.h"
#include "moduleTest.h"
#include "popMessage.h"

class GoldenInput {
  public:
    // Throws std::runtime_error with the reason if the input is invalid.
    explicit GoldenInput(const std::filesystem::path &Path);

    // "message", "pop message", "record" or "recovery".
    [[nodiscard]] std::string Kind() const;
    void FillMessage(CpeMessage &Message) const;
    [[nodiscard]] PopMessage ToPopMessage() const;
    void FillRecord(VQ_CTRL_DNSMASQ_CONF &Conf) const;
    void PrepareBox(fakehost::Host &Host) const;

  private:
    [[nodiscard]] std::vector<uint32_t> VpnIds() const;
    void PrepareVpn(fakehost::Host &Host, uint32_t VpnId, pid_t Pid) const;
    void PrepareStore(fakehost::Host &Host) const;

    struct PutJson {
        void operator()(json_object *Object) const { json_object_put(Object); }
    };

    std::unique_ptr<json_object, PutJson> m_Root;
};

#endif

// Reads the input of a golden case: a message or a record, and the box that it meets.
//
// An element {"repeat": N, "item": X} of a list stands for N copies of X. In texts, "(x*63)" is 63 times x and "#" the
// number of the copy, from 0; an address "10.0.0.0+#" is that many after 10.0.0.0.
#ifndef GOLDEN_INPUT_H
#define GOLDEN_INPUT_H

#include <filesystem>
#include <memory>
#include <string>

#include <json_object.h>

#include "cpeMessage.h"
#include "host.h"
#include "moduleTest.h"

class GoldenInput {
  public:
    // Throws std::runtime_error with what is wrong.
    explicit GoldenInput(const std::filesystem::path &Path);

    [[nodiscard]] bool IsRecord() const;
    void FillMessage(CpeMessage &Message) const;
    void FillRecord(VQ_CTRL_DNSMASQ_CONF &Conf) const;
    void PrepareBox(fakehost::Host &Host) const;

  private:
    struct PutJson {
        void operator()(json_object *Object) const { json_object_put(Object); }
    };

    std::unique_ptr<json_object, PutJson> m_Root;
};

#endif

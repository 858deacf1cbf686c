// A domain name: the module and an independent matcher must agree whether it is valid.
#include <algorithm>
#include <string>

#include "domain_matcher.h"
#include "fuzz.h"
#include "host.h"
#include "vqCtrlAdvancedDns.h"

int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size)
{
    const std::string Bytes(Data, Data + Size);
    const std::string Name = Bytes.substr(0, Bytes.find('\0')); // a name ends at its first zero byte
    fakehost::Host Host;
    Host.RecordNothing();
    const bool HasBlank = Name.find(' ') != std::string::npos;
    Host.Regex.ExpectUnreleased(HasBlank ? 1 : 0);

    const bool Accepted = VQCtrl_ValidateDomain(Name.c_str()) == TRUE;
    if (Accepted != fuzz::IsDomain(Name)) {
        fuzz::Fail("the name " + fakehost::Quote(Name) + (Accepted ? " is accepted" : " is refused"));
    }
    fuzz::RequireNone("violations of the host's rules", Host.Verify());
    return 0;
}

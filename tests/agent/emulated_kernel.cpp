// What an emulator does not pass on to the kernel, and most tests do not depend on.
#include <dlfcn.h>
#include <sys/prctl.h>

#include <cstdarg>

#include "emulator.h"

// qemu refuses to make a process the reaper of what its children leave behind. Every event loop of the agent asks for
// it; a test that depends on it is skipped there.
extern "C" int prctl(int option, ...)
{
    if (option == PR_SET_CHILD_SUBREAPER && kavel::Emulator() != nullptr) {
        return 0;
    }
    va_list arguments;
    va_start(arguments, option);
    const auto first = va_arg(arguments, unsigned long);
    const auto second = va_arg(arguments, unsigned long);
    const auto third = va_arg(arguments, unsigned long);
    const auto fourth = va_arg(arguments, unsigned long);
    va_end(arguments);
    using Prctl = int(int, unsigned long, unsigned long, unsigned long, unsigned long);
    auto *next = reinterpret_cast<Prctl *>(::dlsym(RTLD_NEXT, "prctl"));
    return next(option, first, second, third, fourth);
}

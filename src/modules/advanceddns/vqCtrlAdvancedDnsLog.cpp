#include "vqCtrlAdvancedDnsLog.h"

namespace advanceddns {

LogPrefix::LogPrefix(uint32_t Level) : Impl(VQ_LogGetImplItem(VQ_LOG_MODULE_ADVANCED_DNS))
{
    if (Impl == nullptr || Impl->Log == nullptr) {
        Impl = nullptr;
        return;
    }
    if (Impl->LogLevel2Str != nullptr) {
        LevelText = Impl->LogLevel2Str(Level);
    }
    ModuleName = VQ_LogGetModuleName(VQ_LOG_MODULE_ADVANCED_DNS);
    if (VQ_ThreadGetName(ThreadName + 1, sizeof(ThreadName) - 2) >= 0) {
        ThreadName[0] = '[';
        ThreadName[1 + strnlen(ThreadName + 1, sizeof(ThreadName) - 3)] = ']';
    }
}

} // namespace advanceddns

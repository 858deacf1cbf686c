// Files of the instances.
#include <cerrno>
#include <cstddef>
#include <string_view>

#include "base/files.h"
#include "failure.h"
#include "services/host.h"
#include "vqFile.h"

namespace kavel::agent {
namespace {

std::int32_t WriteFilePath(const char *path, const char *text, std::size_t length)
{
    if (path == nullptr || (text == nullptr && length > 0)) {
        return -EINVAL;
    }
    return ResultOf([&] {
        ReplaceFile(path, std::string_view(text, length));
        if (Host *host = Host::CurrentOrNull()) {
            host->writtenFiles[path] = MarkOfFile(path);
        }
        return 0;
    });
}

template <typename Work>
std::int32_t WithPath(const char *path, Work work)
{
    return path == nullptr ? -EINVAL : ResultOf([&] {
        work(path);
        return 0;
    });
}

} // namespace
} // namespace kavel::agent

using namespace kavel::agent;

extern "C" {

int32_t VQ_WriteSyncWithFilePath(const char *path, const char *text, size_t length)
{
    return WriteFilePath(path, text, length);
}

// Durable as well: it costs little, and a crash never leaves a main configuration file cut short.
int32_t VQ_WriteWithFilePath(const char *path, const char *text, size_t length)
{
    return WriteFilePath(path, text, length);
}

VQ_ERR_T VQ_CreateFilePath(const char *path)
{
    return WithPath(path, CreateFile);
}

VQ_ERR_T VQ_RemoveDirRecursion(char *path)
{
    return WithPath(path, RemoveTree);
}
}

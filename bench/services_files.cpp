// Measures the atomic, durable replacement of a file. The floor is the system calls that it needs.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <string_view>

#include "services.h"
#include "unique_fd.h"
#include "vqFile.h"

namespace kavel::bench {
namespace {

void ReplaceBare(const std::string &directory, const std::string &path, std::string_view content)
{
    const std::string temporary = path + ".new";
    {
        const UniqueFd file(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        Expect(::write(file.Get(), content.data(), content.size()) == static_cast<ssize_t>(content.size()),
               "write failed");
        Expect(::fsync(file.Get()) == 0, "fsync of the file failed");
    }
    Expect(::rename(temporary.c_str(), path.c_str()) == 0, "rename failed");
    const UniqueFd opened(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    Expect(::fsync(opened.Get()) == 0, "fsync of the directory failed");
}

} // namespace

std::vector<Comparison> CompareFiles(const Setting &setting)
{
    // Separate directories: otherwise one fsync of the directory would write the changes of the other.
    const std::string oursDirectory = setting.directory / "ours";
    const std::string floorDirectory = setting.directory / "floor";
    std::filesystem::create_directory(oursDirectory);
    std::filesystem::create_directory(floorDirectory);
    const std::string ours = oursDirectory + "/hosts";
    const std::string floor = floorDirectory + "/hosts";

    std::vector<Comparison> comparisons;
    for (const std::size_t size : {std::size_t{1024}, std::size_t{64} * 1024, std::size_t{1024} * 1024}) {
        const std::string content(size, 'a');
        comparisons.push_back(Compare(
            setting, {"file replaced durably", size, "s", "write, fsync, rename, fsync", 1.1, {}, {}},
            [&] {
                Expect(VQ_WriteSyncWithFilePath(ours.c_str(), content.data(), size) >= 0,
                       "VQ_WriteSyncWithFilePath failed");
            },
            [&] { ReplaceBare(floorDirectory, floor, content); }));
    }
    return comparisons;
}

} // namespace kavel::bench

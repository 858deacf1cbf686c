// Runs a target over the files of a folder, without a fuzzer, so that each named seed is an ordinary test.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <vector>

#include "fuzz.h"
#include "sampling.h"

const bool fuzz::kEveryInput = true;

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> SeedsIn(const fs::path &Folder)
{
    std::vector<fs::path> Out;
    for (const fs::directory_entry &Each : fs::directory_iterator(Folder)) {
        if (Each.is_regular_file()) {
            Out.push_back(Each.path());
        }
    }
    if (Out.empty()) {
        throw std::runtime_error(Folder.string() + ": holds no seeds");
    }
    std::sort(Out.begin(), Out.end());
    return Out;
}

std::vector<uint8_t> ContentOf(const fs::path &File)
{
    std::ifstream Stream(File, std::ios::binary);
    if (!Stream) {
        throw std::runtime_error(File.string() + ": cannot be read");
    }
    return {std::istreambuf_iterator<char>(Stream), std::istreambuf_iterator<char>()};
}

int Run(const fs::path &Folder)
{
    for (const fs::path &Each : SeedsIn(Folder)) {
        const std::vector<uint8_t> Content = ContentOf(Each);
        // A target that fails aborts the process: the last printed name is that of the failed seed.
        std::cerr << Each.filename().string() << std::endl; // NOLINT(performance-avoid-endl)
        static_cast<void>(LLVMFuzzerTestOneInput(Content.data(), Content.size()));
    }
    return EXIT_SUCCESS;
}

} // namespace

int main(int Count, char **Arguments)
{
    try {
        if (Count != 2) {
            throw std::runtime_error("usage: seeds FOLDER");
        }
        return Run(Arguments[1]);
    } catch (const std::exception &Failure) {
        std::cerr << Failure.what() << '\n';
        return EXIT_FAILURE;
    }
}

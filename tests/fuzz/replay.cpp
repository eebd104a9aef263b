// Runs a target over files, as the fuzzer would: the inputs that once failed, and those it starts from.
#include "input.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

int main(int count, char **arguments)
{
    std::vector<std::filesystem::path> files;
    for (int i = 1; i < count; ++i)
        for (const auto &entry : std::filesystem::recursive_directory_iterator(arguments[i]))
            if (entry.is_regular_file())
                files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    for (const auto &file : files) {
        std::ifstream stream(file, std::ios::binary);
        const std::vector<char> bytes((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
        std::printf("%s (%zu bytes)\n", file.c_str(), bytes.size());
        std::fflush(stdout);
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(bytes.data()), bytes.size());
    }
    std::printf("%zu inputs\n", files.size());
    return files.empty() ? 1 : 0;
}

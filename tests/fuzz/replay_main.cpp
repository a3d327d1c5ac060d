// Replays stored inputs (files, or every file of the directories given)
// through a fuzz target's entry point, for builds without libFuzzer. Exits
// non-zero when no input was found; a failing input ends the process as it
// would under the fuzzer.
#include "fuzz_input.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

int main(int argc, char **argv)
{
    std::vector<std::filesystem::path> files;
    for (int i = 1; i < argc; ++i) {
        std::filesystem::path p(argv[i]);
        if (std::filesystem::is_directory(p)) {
            for (const auto &entry : std::filesystem::directory_iterator(p))
                if (entry.is_regular_file())
                    files.push_back(entry.path());
        } else {
            files.push_back(p);
        }
    }
    std::sort(files.begin(), files.end());
    if (files.empty()) {
        std::fprintf(stderr, "no inputs\n");
        return 1;
    }
    for (const auto &file : files) {
        std::ifstream in(file, std::ios::binary);
        if (!in) {
            std::fprintf(stderr, "cannot read %s\n", file.c_str());
            return 1;
        }
        std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        std::printf("%s (%zu bytes)\n", file.filename().c_str(), bytes.size());
        std::fflush(stdout);
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    std::printf("%zu inputs replayed\n", files.size());
    return 0;
}

/* Runs each file of a folder through a fuzz target, with any compiler. */
#include "fuzz_input.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

int main(int, char **argv)
{
    for (const auto &entry : std::filesystem::directory_iterator(argv[1])) {
        fprintf(stderr, "%s\n", entry.path().c_str());
        std::ifstream file(entry.path(), std::ios::binary);
        const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
    }
    return 0;
}

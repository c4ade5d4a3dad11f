/* SPDX-License-Identifier: Apache-2.0 */
/* Runs a fuzz target on each file of a folder, then on a number of random inputs, which are the
   same in each run. Unlike the fuzzer, this builds with any compiler. */
#include "tests/fuzz/fuzz_input.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

int main(int, char **argv)
{
    for (const auto &entry : std::filesystem::directory_iterator(argv[1])) {
        fprintf(stderr, "%s\n", entry.path().c_str());
        std::ifstream file(entry.path(), std::ios::binary);
        const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
    }
    std::mt19937 random{7};
    for (int number = 0; number < atoi(argv[2]); number++) {
        fprintf(stderr, "random input %d\n", number);
        std::vector<uint8_t> bytes(2000);
        std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(random()); });
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    return 0;
}

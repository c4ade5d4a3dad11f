/* Runs each file of the given folders through a fuzz target, with any compiler. */
#include "fuzz_input.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

int main(int argc, char **argv)
{
    size_t count = 0;
    for (int index = 1; index < argc; index++)
        for (const auto &entry : std::filesystem::directory_iterator(argv[index])) {
            fprintf(stderr, "%s\n", entry.path().c_str());
            std::ifstream file(entry.path(), std::ios::binary);
            const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
            count++;
        }
    return count > 0 ? 0 : 1;
}

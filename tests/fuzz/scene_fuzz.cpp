/* SPDX-License-Identifier: Apache-2.0 */
/* Reads random bytes as a scene of teskboard: the whole scene is valid, or the error names the file
   and the line. */
#include "program/exit_code.h"
#include "tests/fuzz/fuzz_input.h"
#include "tools/teskboard/scene.h"

#include <string>
#include <sys/mman.h>
#include <unistd.h>

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const int file = memfd_create("scene", MFD_CLOEXEC);
    assert(file != -1 && write(file, data, size) == static_cast<ssize_t>(size));
    const std::string path = "/proc/self/fd/" + std::to_string(file);
    try {
        for (const auto &step : teskboard::read_scene(path)) {
            assert(step.where.starts_with(path + ":") && !step.text.empty());
            assert(step.pause.count() >= 0 && step.pause.count() < 1e6);
        }
    } catch (const tool_error &error) {
        assert(std::string(error.what()).starts_with(path + ":"));
    }
    close(file);
    return 0;
}

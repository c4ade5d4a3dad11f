/* SPDX-License-Identifier: Apache-2.0 */
/* The memories of real modules, where they are at hand, beside what ethtool says of them. */
#include "platform/dolm_ric/linux/module_decode.h"
#include "testkit/modules/ethtool_comparison.h"
#include "testkit/modules/module_images.h"
#include "testkit/texts.h"

#include <filesystem>
#include <gtest/gtest.h>

using namespace linux_board;

static module_images::bytes read_bytes(const std::string &path)
{
    const std::string text = testkit::read_file(path);
    return {text.begin(), text.end()};
}

TEST(real_modules, say_what_ethtool_says)
{
    const char *given = getenv("TESK_MODULES");
    const std::filesystem::path folder =
        given != nullptr ? given : TESK_SOURCE_DIR "/../shared/linux/modules";
    if (!std::filesystem::exists(folder / "bin"))
        GTEST_SKIP() << folder << " has no memories of real modules; TESK_MODULES may name them";

    size_t compared = 0;
    for (const auto &images : {folder / "bin", folder.parent_path() / "images"}) {
        if (!std::filesystem::exists(images))
            continue;
        for (const auto &entry : std::filesystem::directory_iterator(images)) {
            if (entry.path().extension() != ".a0")
                continue;
            const std::string name = entry.path().stem();
            const std::string stem = images / name;
            const module_images::image image = {
                read_bytes(stem + ".a0"), read_bytes(stem + ".a2"), {}};
            const module_contents contents = decode_module(image.read());
            const std::string ethtool =
                testkit::read_file(folder / "ethtool-6.1" / (name + ".txt"));
            for (const text_difference &its : compare_with_ethtool(name, contents, ethtool))
                EXPECT_NE(its.why_ethtool_is_wrong, nullptr) << name << ": " << its.line;
            compared++;
        }
    }
    EXPECT_GE(compared, 28u);
}

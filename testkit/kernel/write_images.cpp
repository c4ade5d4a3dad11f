/* SPDX-License-Identifier: Apache-2.0 */
/* write_images FOLDER - writes the modules of module_images.h as files for cageports: NAME.a0,
   NAME.a2 and, if a module has banks, NAME.bank1. */
#include "testkit/modules/module_images.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <fstream>
#include <string>

using module_images::bytes;
using module_images::image;

static void write_file(const std::string &path, const bytes &content)
{
    std::ofstream file(path, std::ios::binary);
    file.exceptions(std::ios::failbit | std::ios::badbit);
    file.write(reinterpret_cast<const char *>(content.data()),
               static_cast<std::streamsize>(content.size()));
    file.close();
}

/* Lower memory and pages, including page 11h of one bank. */
static bytes with_lanes(bytes memory, const bytes &lanes)
{
    constexpr std::size_t place = std::size_t{128} * 0x12;
    memory.resize(std::max(memory.size(), place + 128));
    std::copy(lanes.begin() + 128, lanes.end(), memory.begin() + place);
    return memory;
}

static void write_image(const std::string &stem, const image &made)
{
    const bool has_lanes = !made.lanes.empty();
    write_file(stem + ".a0", has_lanes ? with_lanes(made.a0, made.lanes.at(0)) : made.a0);
    write_file(stem + ".a2", made.a2);
    if (made.lanes.contains(1))
        write_file(stem + ".bank1", with_lanes({}, made.lanes.at(1)));
}

static image with_serial(image made, std::string_view serial)
{
    module_images::put_text(made.a0, 68, 16, serial);
    module_images::put_sum(made.a0, 64, 95);
    return made;
}

int main(int argc, char **argv)
{
    if (argc != 2) {
        fputs("Usage: write_images FOLDER\n", stderr);
        return 2;
    }
    const std::string folder = argv[1];
    try {
        write_image(folder + "/made-sfp", module_images::sfp());
        write_image(folder + "/made-other-sfp", with_serial(module_images::sfp(), "0002"));
        write_image(folder + "/made-external", module_images::external_sfp());
        write_image(folder + "/made-qsfp", module_images::qsfp());
        write_image(folder + "/made-cmis", module_images::cmis_with_vdm());
    } catch (const std::exception &error) {
        fprintf(stderr, "write_images: %s: %s\n", argv[1], error.what());
        return 1;
    }
    return 0;
}

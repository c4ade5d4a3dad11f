/* SPDX-License-Identifier: Apache-2.0 */
/* compare_module PORT NAME - reads the module of a port by tesk-module-reader and compares it with
   the text of `ethtool -m` on standard input. NAME is that of the module's image. The exit status
   is 1 if a difference can't be explained. */
#include "platform/dolm_ric/linux/decode/module_decode.h"
#include "platform/dolm_ric/linux/decode/module_memory.h"
#include "platform/dolm_ric/linux/reader_client.h"
#include "platform/linux_interfaces/port_config.h"
#include "testkit/modules/ethtool_comparison.h"
#include "testkit/modules/module_text.h"
#include "util/descriptor.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <iterator>
#include <span>
#include <string>
#include <vector>

using namespace linux_board;

/* The bytes of a range, read piece by piece; empty if a piece can't be read. */
static std::vector<uint8_t> read_range(reader_client &reader, uint32_t port,
                                       const memory_range &range)
{
    std::vector<uint8_t> bytes;
    while (bytes.size() < range.length) {
        piece part = {.port = port, .range = range};
        part.range.offset = static_cast<uint8_t>(range.offset + bytes.size());
        part.range.length =
            static_cast<uint8_t>(std::min<size_t>(longest_piece, range.length - bytes.size()));
        reader.read(std::span(&part, 1));
        if (part.error != 0) {
            printf("    address %02xh bank %u page %02xh offset %u: %s\n", part.range.address,
                   part.range.bank, part.range.page, part.range.offset, strerror(part.error));
            return {};
        }
        bytes.insert(bytes.end(), part.bytes.begin(), part.bytes.begin() + part.range.length);
    }
    return bytes;
}

static module_memory read_module(uint32_t port)
{
    const char *socket = getenv(READER_SOCKET_ENV);
    reader_client reader(socket != nullptr ? socket : READER_SOCKET, -1);
    if (const util::descriptor config(open_port_config(port_config_path())); config.is_open())
        reader.expect(read_port_config(config.get(), "ports").checksum);
    module_memory memory;
    for (size_t done = 0;; done++) {
        const auto plan = reading_plan(memory);
        if (done == plan.size())
            return memory;
        const auto bytes = read_range(reader, port, plan[done].range);
        if (!bytes.empty())
            memory.store(plan[done].range, bytes, {});
    }
}

/* Whether all differences are known faults of ethtool. */
static bool compare_port(uint32_t port, const std::string &name, const std::string &ethtool)
{
    const module_contents contents = decode_module(read_module(port));
    printf("%s in port %u: %zu lines of ours, %zu of ethtool\n", name.c_str(), port,
           module_text(contents).size(), comparable_text(ethtool).size());
    bool is_explained = true;
    for (const text_difference &its : compare_with_ethtool(name, contents, ethtool)) {
        const bool is_known = its.why_ethtool_is_wrong != nullptr;
        printf("    %s (%s)\n", its.line.c_str(),
               is_known ? its.why_ethtool_is_wrong : "NOT EXPLAINED");
        is_explained = is_explained && is_known;
    }
    return is_explained;
}

int main(int argc, char **argv)
{
    if (argc < 3) {
        fputs("Usage: compare_module NAME PORT.. < TEXT OF ETHTOOL\n", stderr);
        return 2;
    }
    const std::string ethtool{std::istreambuf_iterator(std::cin), {}};
    bool is_right = true;
    for (const char *port : std::span(argv + 2, static_cast<size_t>(argc - 2)))
        is_right &=
            compare_port(static_cast<uint32_t>(strtoul(port, nullptr, 10)), argv[1], ethtool);
    return is_right ? 0 : 1;
}

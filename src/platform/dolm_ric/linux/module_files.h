/* SPDX-License-Identifier: Apache-2.0 */
/* module_files - modules whose memory is a file: recorded modules, for replay and tests. A file has
   the layout that ethtool writes ("ethtool -m IF raw on"): the 128 lower bytes and then the pages
   in order; for an SFP module the 256 bytes of address 0x50 and then those of 0x51. One thread. */
#pragma once

#include "platform/dolm_ric/linux/module_access.h"

#include <cstdint>
#include <map>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace linux_board
{

constexpr size_t largest_module_file = 65536;

class module_files final : public module_access
{
  public:
    /* Sets the port's file; an empty path removes it. */
    void add(uint32_t port, std::string path);
    bool has(uint32_t port) const;

    /* ENXIO if there is no file, as for an empty cage, for a range behind the end of the file, and
       for banks other than 0, which the layout doesn't contain. EIO if the file can't be read,
       isn't a regular file or is too long; a line on stderr says so, once. A file that was replaced
       or changed is read again. */
    void read(std::span<piece> pieces) override;

  private:
    struct recorded {
        std::string path;
        struct stat status = {}; /* status of the file when its bytes were read */
        std::vector<uint8_t> bytes = {};
        std::string fault = {}; /* the fault that was last reported */
    };

    static int load(uint32_t port, recorded &file);

    std::map<uint32_t, recorded> files_;
};

} // namespace linux_board

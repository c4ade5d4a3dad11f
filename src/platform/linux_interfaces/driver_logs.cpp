/* SPDX-License-Identifier: Apache-2.0 */
/* The name of the driver is the last part of the link in the device's folder of sysfs. */
#include "platform/linux_interfaces/driver_logs.h"

#include <algorithm>
#include <array>
#include <climits>
#include <string_view>
#include <unistd.h>

namespace linux_board
{

bool logs_failed_readings(const std::string &parent, const std::string &devices)
{
    static constexpr std::string_view drivers[] = {"i40e", "mlx5_core"};

    std::array<char, PATH_MAX> target;
    const std::string link = devices + "/" + parent + "/driver";
    const ssize_t length =
        parent.empty() ? -1 : readlink(link.c_str(), target.data(), target.size());
    if (length <= 0)
        return false;
    const std::string_view path(target.data(), static_cast<size_t>(length));
    const std::string_view driver = path.substr(path.rfind('/') + 1);
    return std::ranges::find(drivers, driver) != std::end(drivers);
}

} // namespace linux_board

/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: a reading is tried by netlink, and by the older ioctl if the driver supports only
   that. On an I2C bus it is one combined transfer, or several short blocks. */
#include "tesk_module_reader/module_memory_access.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/ethtool.h>
#include <linux/ethtool_netlink.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace module_reader
{

static constexpr uint8_t second_address = 0x51;

/* A driver's own timeout ends a reading; this timeout only guards against a lost answer. */
static constexpr std::chrono::seconds kernel_patience{30};

interface_modules::interface_modules()
    : generic_(NETLINK_GENERIC),
      family_(netlink::find_family(generic_, ETHTOOL_GENL_NAME, ETHTOOL_MSG_MODULE_EEPROM_GET)),
      socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
    if (!socket_)
        throw std::system_error(errno, std::generic_category(), "socket");
}

int interface_modules::read(int32_t index, const reader_request &range, std::span<uint8_t> out)
{
    return family_ != 0 ? read_by_netlink(index, range, out) : read_by_ioctl(index, range, out);
}

int interface_modules::read_by_netlink(int32_t index, const reader_request &range,
                                       std::span<uint8_t> out)
{
    netlink::request question = netlink::generic_request(family_, ETHTOOL_MSG_MODULE_EEPROM_GET);
    const size_t header = question.begin_nest(ETHTOOL_A_MODULE_EEPROM_HEADER);
    question.put(ETHTOOL_A_HEADER_DEV_INDEX, static_cast<uint32_t>(index));
    question.end_nest(header);
    question.put(ETHTOOL_A_MODULE_EEPROM_OFFSET, uint32_t{range.offset});
    question.put(ETHTOOL_A_MODULE_EEPROM_LENGTH, static_cast<uint32_t>(out.size()));
    question.put(ETHTOOL_A_MODULE_EEPROM_PAGE, range.page);
    question.put(ETHTOOL_A_MODULE_EEPROM_BANK, range.bank);
    question.put(ETHTOOL_A_MODULE_EEPROM_I2C_ADDRESS, range.address);
    bool complete = false;
    const int error = generic_.ask(question, kernel_patience, [&](const netlink::message &answer) {
        const netlink::byte_view data = netlink::find_attribute(netlink::generic_attributes(answer),
                                                                ETHTOOL_A_MODULE_EEPROM_DATA);
        complete = data.size() == out.size();
        if (complete)
            std::copy(data.begin(), data.end(), out.begin());
    });
    return error == 0 && !complete ? EIO : error;
}

static int ethtool_ioctl(int fd, ifreq &request, void *command)
{
    request.ifr_data = static_cast<char *>(command);
    return ioctl(fd, SIOCETHTOOL, &request) == 0 ? 0 : errno;
}

/* The older interface has one row of bytes: lower memory and pages, or 0x50 and then 0x51. If a
   driver doesn't report the second address, it must not be read. */
static int place_in_row(const ethtool_modinfo &module, const reader_request &range, uint32_t &at)
{
    at = range.page * 128u + range.offset;
    if (range.bank != 0)
        return EINVAL;
    if (range.address == second_address) {
        if (module.type != ETH_MODULE_SFF_8472)
            return ENXIO;
        at += ETH_MODULE_SFF_8079_LEN;
    } else if (range.page != 0 && module.type != ETH_MODULE_SFF_8636 &&
               module.type != ETH_MODULE_SFF_8436) {
        return EINVAL;
    }
    return at + range.length > module.eeprom_len ? EINVAL : 0;
}

int interface_modules::read_by_ioctl(int32_t index, const reader_request &range,
                                     std::span<uint8_t> out)
{
    ifreq request = {};
    request.ifr_ifindex = index;
    if (ioctl(socket_.get(), SIOCGIFNAME, &request) != 0)
        return errno;
    ethtool_modinfo module = {};
    module.cmd = ETHTOOL_GMODULEINFO;
    if (const int error = ethtool_ioctl(socket_.get(), request, &module))
        return error;
    ethtool_eeprom head = {};
    if (const int error = place_in_row(module, range, head.offset))
        return error;
    head.cmd = ETHTOOL_GMODULEEEPROM;
    head.len = static_cast<uint32_t>(out.size());
    alignas(ethtool_eeprom) std::array<uint8_t, sizeof(head) + READER_LONGEST_READ> buffer = {};
    memcpy(buffer.data(), &head, sizeof(head));
    if (const int error = ethtool_ioctl(socket_.get(), request, buffer.data()))
        return error;
    std::copy_n(buffer.begin() + sizeof(head), out.size(), out.begin());
    return 0;
}

int open_bus(uint32_t bus)
{
    char path[32];
    snprintf(path, sizeof(path), "/dev/i2c-%u", bus);
    const int fd = open(path, O_RDWR | O_CLOEXEC | O_NOFOLLOW);
    return fd < 0 ? -errno : fd;
}

/* Writes the offset and, after a repeated start, reads the bytes: one transfer, which is safe while
   a kernel driver uses the bus. */
static int read_combined(int fd, const reader_request &range, std::span<uint8_t> out)
{
    uint8_t offset = range.offset;
    i2c_msg parts[] = {
        {.addr = range.address, .flags = 0, .len = 1, .buf = &offset},
        {.addr = range.address,
         .flags = I2C_M_RD,
         .len = static_cast<uint16_t>(out.size()),
         .buf = out.data()},
    };
    i2c_rdwr_ioctl_data transfer = {.msgs = parts, .nmsgs = 2};
    return ioctl(fd, I2C_RDWR, &transfer) < 0 ? errno : 0;
}

/* SMBus controllers can only read blocks, which may be shorter than requested. */
static int read_blocks(int fd, const reader_request &range, std::span<uint8_t> out)
{
    if (ioctl(fd, I2C_SLAVE_FORCE, static_cast<long>(range.address)) < 0)
        return errno;
    for (size_t done = 0; done < out.size();) {
        i2c_smbus_data block = {};
        block.block[0] = static_cast<uint8_t>(out.size() - done);
        i2c_smbus_ioctl_data transfer = {.read_write = I2C_SMBUS_READ,
                                         .command = static_cast<uint8_t>(range.offset + done),
                                         .size = I2C_SMBUS_I2C_BLOCK_DATA,
                                         .data = &block};
        if (ioctl(fd, I2C_SMBUS, &transfer) < 0)
            return errno;
        const size_t count = std::min<size_t>(block.block[0], out.size() - done);
        if (count == 0)
            return EIO;
        memcpy(out.data() + done, block.block + 1, count);
        done += count;
    }
    return 0;
}

int read_from_bus(int fd, const reader_request &range, std::span<uint8_t> out)
{
    unsigned long functions = 0;
    if (range.page != 0 || range.bank != 0)
        return EOPNOTSUPP;
    if (ioctl(fd, I2C_FUNCS, &functions) < 0)
        return errno;
    return (functions & I2C_FUNC_I2C) != 0 ? read_combined(fd, range, out)
                                           : read_blocks(fd, range, out);
}

} // namespace module_reader

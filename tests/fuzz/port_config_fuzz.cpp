/* SPDX-License-Identifier: Apache-2.0 */
/* Parses random text as the configuration of the ports: each accepted port is valid, and each
   message is short and printable. */
#include "platform/linux_interfaces/port_config.h"
#include "tests/fuzz/fuzz_input.h"

using namespace linux_board;

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    const port_config config = parse_port_config(text, "ports");

    assert(config.messages.size() <= max_port_config_messages);
    for (const std::string &message : config.messages) {
        assert(message.starts_with("ports:") && message.size() < 300);
        for (const char byte : message)
            assert(byte >= ' ' && byte <= '~');
    }
    for (size_t n = 0; n < config.ports.size(); n++) {
        const configured_port &port = config.ports[n];
        assert(port.number <= 65534 && (n == 0 || config.ports[n - 1].number < port.number));
        assert(port.interface.empty() != port.parent.empty());
        assert((port.source == module_source::file) == !port.file.empty());
        assert(port.file.empty() || port.file[0] == '/');
    }
    return 0;
}

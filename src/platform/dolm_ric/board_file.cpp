#include "board_file.h"

#include "board_requests.h"

#include <glib.h>

#include <algorithm>
#include <memory>

namespace board
{
namespace
{

/* Something of each kind, so that whatever a client may meet is there without a file. */
constexpr char built_in[] = R"(
[board]
ports = 16
[port 0-10]
link = up
[port 0-3]
module = lc-own
speed = 9.8
[port 1]
vendor_sn = EX10G0002
temperature = 38.2C
[port 2]
vendor_sn = EX10G0003
temperature = 44.0C
speed = 10.1
[port 3]
vendor_sn = EX10G0004
link = down
[port 4-7]
module = lc
speed = 10
[port 5]
vendor_sn = EX10G0102
temperature = 47.9C
[port 6]
vendor_sn = EX10G0103
rxpower = -12.8dBm
[port 7]
vendor_sn = EX10G0104
ready = no
link = down
[port 8-9]
module = rj45
speed = 1.2
[port 9]
vendor_sn = EX1GT0002
[port 10]
module = other
speed = 10
[port 11]
module = non-sfp
[port 12]
module = unreadable
[port 15]
started = no
link = stopped
)";

struct glib_deleter {
    void operator()(GKeyFile *file) const
    {
        g_key_file_free(file);
    }
    void operator()(gchar **list) const
    {
        g_strfreev(list);
    }
    void operator()(gchar *text) const
    {
        g_free(text);
    }
    void operator()(GError *error) const
    {
        g_error_free(error);
    }
};
template <typename type>
using glib_ptr = std::unique_ptr<type, glib_deleter>;

glib_ptr<GKeyFile> parse_file(const char *path)
{
    glib_ptr<GKeyFile> file(g_key_file_new());
    GError *error = nullptr;
    if (path != nullptr)
        g_key_file_load_from_file(file.get(), path, G_KEY_FILE_NONE, &error);
    else
        g_key_file_load_from_data(file.get(), built_in, sizeof(built_in) - 1, G_KEY_FILE_NONE,
                                  &error);
    const glib_ptr<GError> failed(error);
    if (failed)
        throw board_error(failed->message);
    return file;
}

/* Calls take(key, value) for each line of the group; its errors are told with group and key. */
template <typename take_entry>
void for_each_entry(GKeyFile *file, const char *group, take_entry &&take)
{
    const glib_ptr<gchar *> keys(g_key_file_get_keys(file, group, nullptr, nullptr));
    for (gchar **key = keys.get(); *key != nullptr; key++) {
        const glib_ptr<gchar> value(g_key_file_get_value(file, group, *key, nullptr));
        try {
            take(std::string_view(*key), std::string_view(g_strstrip(value.get())));
        } catch (const board_error &error) {
            throw board_error("[" + std::string(group) + "] " + *key + ": " + error.what());
        }
    }
}

board_plan::section read_section(GKeyFile *file, const char *group, std::string_view ports)
{
    board_plan::section section = {parse_ports(ports), nullptr, {}};
    for_each_entry(file, group, [&](std::string_view key, std::string_view value) {
        if (key == "module")
            section.module = &parse_module_kind(value);
        else
            section.settings.push_back(parse_setting(std::string(key) + "=" + std::string(value)));
    });
    return section;
}

void read_group(GKeyFile *file, const char *group, board_plan &plan)
{
    const std::string_view name = group;
    if (name == "board") {
        for_each_entry(file, group, [&](std::string_view key, std::string_view value) {
            if (key != "ports")
                throw board_error("the only key here is ports");
            plan.ports = static_cast<uint32_t>(parse_number(value, max_ports));
        });
    } else if (name == "fail") {
        for_each_entry(file, group, [&](std::string_view key, std::string_view value) {
            plan.failures.push_back(parse_failure(parse_operation(key), split_words(value)));
        });
    } else if (name.starts_with("port ")) {
        plan.sections.push_back(read_section(file, group, name.substr(5)));
    } else {
        throw board_error("[" + std::string(name) +
                          "]: there are [board], [port PORTS] and [fail]");
    }
}

/* How many ports the sections need. */
uint32_t ports_named(const board_plan &plan)
{
    uint32_t ports = 0;
    for (const board_plan::section &section : plan.sections)
        for (const port_range &range : section.ports)
            ports = std::max(ports, range.last + 1);
    return ports;
}

} // namespace

board_plan read_board(const char *path)
{
    try {
        const glib_ptr<GKeyFile> file = parse_file(path);
        const glib_ptr<gchar *> groups(g_key_file_get_groups(file.get(), nullptr));
        board_plan plan;
        for (gchar **group = groups.get(); *group != nullptr; group++)
            read_group(file.get(), *group, plan);
        const uint32_t named = ports_named(plan);
        if (plan.ports == 0)
            plan.ports = named;
        if (plan.ports == 0 || named > plan.ports)
            throw board_error("[board] ports: the sections name " + std::to_string(named) +
                              " ports, the board has " + std::to_string(plan.ports));
        return plan;
    } catch (const board_error &error) {
        throw board_error((path != nullptr ? path : "built-in board") +
                          (": " + std::string(error.what())));
    }
}

} // namespace board

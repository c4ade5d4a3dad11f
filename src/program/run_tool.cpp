/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: the body runs, then the output is checked; the first failure determines the exit
   status. */
#include "program/run_tool.h"

#include "program/output.h"

#include <clocale>

int run_tool(const char *name, const std::function<exit_code()> &body)
{
    std::setlocale(LC_CTYPE, ""); /* decides whether the degree sign can be shown */
    try {
        const exit_code code = body();
        check_output();
        return static_cast<int>(code);
    } catch (const tool_error &error) {
        complain(name, error.what());
        return static_cast<int>(error.code());
    } catch (const std::exception &error) {
        complain(name, std::string("unexpected: ") + error.what());
        return static_cast<int>(exit_code::fault);
    }
}

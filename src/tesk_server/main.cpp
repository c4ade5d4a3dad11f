/* SPDX-License-Identifier: Apache-2.0 */
#include "tesk_server/tesk_main.h"

int main()
{
    return tesk_run();
}

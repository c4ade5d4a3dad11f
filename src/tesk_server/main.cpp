/* SPDX-License-Identifier: Apache-2.0 */
/* The executable; everything else is in the static library, which the tests link, too. */
#include "tesk_server/tesk_main.h"

int main()
{
    return tesk_run();
}

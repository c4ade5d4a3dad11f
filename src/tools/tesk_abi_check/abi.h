/* SPDX-License-Identifier: Apache-2.0 */
/* abi - checks that the four libraries of a board export all names that tesk-server and its clients
   use. No state. */
#pragma once

#include <string>
#include <vector>

struct abi_problem {
    std::string library;
    std::string name; /* empty: the library as a whole */
    std::string text; /* continues the name, or the library where there is none */
};

/* Checks the libraries in a directory. Problems come in the order of the table of names; empty if
   everything is there. */
std::vector<abi_problem> check_abi(const std::string &directory);

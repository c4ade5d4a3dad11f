/* SPDX-License-Identifier: Apache-2.0 */
/* abi - what tesk-server and its clients need of the four libraries of a board, and what of it is
   not there. No state. */
#pragma once

#include <string>
#include <vector>

struct abi_problem {
    std::string library;
    std::string name; /* empty where the library as a whole is meant */
    std::string text; /* goes behind the name or, without one, behind the library's */
};

/* Of the libraries in a directory, in the order of the table of names. Empty: all is there. */
std::vector<abi_problem> check_abi(const std::string &directory);

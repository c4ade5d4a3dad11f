/* SPDX-License-Identifier: Apache-2.0 */
/* abi - checks that the four libraries of a board export all names that tesk-server and its clients
   use. No state. */
#pragma once

#include <optional>
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

/* Checks one library, whichever of the four its file name begins with, such as "libmbx.so.1.2".
   Nothing if it begins with none of them. */
std::optional<std::vector<abi_problem>> check_library(const std::string &path);

/* SPDX-License-Identifier: Apache-2.0 */
/* abi - checks that the four libraries of a board export all names that tesk-server and its clients
   use. No state. */
#pragma once

#include <optional>
#include <string>
#include <vector>

struct abi_problem {
    std::string library;
    std::string name; /* empty: the problem concerns the whole library */
    std::string text; /* continues a sentence that begins with the name, or with the library */
};

/* Checks the libraries in a directory. Problems are in the order of the table of names; empty if no
   name is missing. */
std::vector<abi_problem> check_abi(const std::string &directory);

/* Checks one library, whose file name begins with one of the four names, such as "libmbx.so.1.2".
   Nothing if it begins with none of them. */
std::optional<std::vector<abi_problem>> check_library(const std::string &path);

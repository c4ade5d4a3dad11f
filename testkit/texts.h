/* SPDX-License-Identifier: Apache-2.0 */
/* texts - functions of tests that look for texts in outputs and files. */
#pragma once

#include "testkit/processes/processes.h"

#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

namespace testkit
{

inline bool contains(std::string_view text, std::string_view part)
{
    return text.find(part) != text.npos;
}

inline void expect_parts(std::string_view text, const std::vector<std::string> &parts)
{
    for (const std::string &part : parts)
        EXPECT_TRUE(contains(text, part)) << part << "\nis missing in\n" << text;
}

inline void expect_none(std::string_view text, const std::vector<std::string> &parts)
{
    for (const std::string &part : parts)
        EXPECT_FALSE(contains(text, part)) << part << "\nis in\n" << text;
}

/* A program's arguments, its exit status, and a part of its output. */
struct expected_run {
    std::string arguments;
    int status;
    std::string text;
};

inline void expect_runs(const std::string &program, const std::vector<expected_run> &all)
{
    for (const auto &[arguments, status, text] : all) {
        std::string output;
        EXPECT_EQ(run(program + " " + arguments, output), status) << arguments << "\n" << output;
        expect_parts(output, {text});
    }
}

inline std::string read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

} // namespace testkit

/* SPDX-License-Identifier: Apache-2.0 */
/* texts - what a test looks for in outputs and files. */
#pragma once

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

inline std::string read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

} // namespace testkit

// Matrices of cases, kept as data: one case a line, its fields parted by "|", lines with "#" comments.
#pragma once

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

using Row = std::vector<std::string>;

// The rows of tests/data/`name`, each with `fields` fields. "{text*3}" stands for texttexttext.
inline std::vector<Row> read_rows(const std::string &name, std::size_t fields) {
    std::vector<Row> rows;
    std::ifstream file(ZYN_TEST_DATA "/" + name);
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line.front() == '#')
            continue;
        for (std::size_t open = 0;
             (open = line.find('{')) != std::string::npos && line.find('*', open) < line.find('}', open);) {
            const std::size_t star = line.find('*', open), close = line.find('}', open);
            std::string run;
            for (int i = std::stoi(line.substr(star + 1)); i > 0; --i)
                run += line.substr(open + 1, star - open - 1);
            line.replace(open, close + 1 - open, run);
        }
        Row row(1);
        for (const char c : line)
            c == '|' ? row.emplace_back() : row.back() += c, void();
        EXPECT_EQ(row.size(), fields) << name << ": " << line;
        rows.push_back(row);
    }
    EXPECT_FALSE(rows.empty()) << name;
    return rows;
}

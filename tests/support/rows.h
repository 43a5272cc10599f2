// Matrices of cases, kept as data: one case a line, its fields parted by "|", lines with "#" comments.
#pragma once

#include "support/text.h"

#include <gtest/gtest.h>

using Row = std::vector<std::string>;

enum class Escapes { replaced, kept }; // kept for columns that bear another meaning of the backslash

// The rows of tests/data/`name`, each with `fields` fields. "{text*3}" stands for texttexttext, "\n" and "\t"
// for a newline and a tab.
inline std::vector<Row> read_rows(const std::string &name, std::size_t fields,
                                  Escapes escapes = Escapes::replaced) {
    std::vector<Row> rows;
    for (std::string line : split(read_file(ZYN_TEST_DATA "/" + name))) {
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
        for (std::size_t at = 0;
             escapes == Escapes::replaced && (at = line.find('\\', at)) != std::string::npos; ++at)
            line.replace(at, 2, line.substr(at + 1, 1) == "n" ? "\n" : "\t");
        Row row(1);
        for (const char c : line)
            c == '|' ? row.emplace_back() : row.back() += c, void();
        EXPECT_EQ(row.size(), fields) << name << ": " << line;
        row.resize(fields);
        rows.push_back(row);
    }
    EXPECT_FALSE(rows.empty()) << name;
    return rows;
}

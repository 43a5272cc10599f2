// The one table that a run prints.
#pragma once

#include <string>
#include <vector>

using Samples = std::vector<double>;

struct Spread {
    double median;
    double min;
    double max;
};

Spread spread_of(Samples samples); // of at least one sample

struct Row {
    std::string name;
    std::string ours;
    std::string other;  // what it is compared with, and its figure
    std::string ratio;  // median with the smallest and the largest
    std::string target; // and whether it was met
};

// Both figures of a round stand at the same index and were taken right after one another: the ratio
// is that of each round, and its median is held against `limit` (0: there is no target).
struct Comparison {
    std::string name;
    std::string unit;
    std::string other; // name of what is compared
    Samples ours{};
    Samples others{};
    double limit = 0;
};
Row row_of(const Comparison &comparison);

// A figure whose median has to stay within `limit`, which stands in the same unit.
struct Bound {
    std::string name;
    std::string unit;
    Samples ours{};
    double limit = 0;
};
Row row_of(const Bound &bound);

std::string verdict(bool met);
// A figure with three significant digits, and its unit.
std::string figure(double value, const std::string &unit);
std::string figure(const Spread &spread, const std::string &unit);

void print(const std::vector<Row> &rows);

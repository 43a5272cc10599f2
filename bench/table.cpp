// Medians, their spread, and the layout of the table.
#include "table.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <stdexcept>

namespace {

constexpr std::size_t columns = 5;

// %g would turn to exponents.
std::string digits(double value) {
    const double size = std::fabs(value);
    const int decimals = size >= 99.95 ? 0 : size >= 9.995 ? 1 : 2;
    char text[64];
    std::snprintf(text, sizeof(text), "%.*f", decimals, value);
    return text;
}

std::string with_unit(const std::string &text, const std::string &unit) {
    return unit.empty() ? text : text + " " + unit;
}

std::string limit_text(double limit, const std::string &unit) {
    char text[64];
    std::snprintf(text, sizeof(text), "at most %g", limit);
    return with_unit(text, unit) + ": ";
}

std::array<const std::string *, columns> cells(const Row &row) {
    return {&row.name, &row.ours, &row.other, &row.ratio, &row.target};
}

void print_line(const Row &row, const std::array<std::size_t, columns> &widths) {
    const auto texts = cells(row);
    for (std::size_t i = 0; i < columns; ++i)
        std::printf("| %-*s ", static_cast<int>(widths[i]), texts[i]->c_str());
    std::printf("|\n");
}

} // namespace

Spread spread_of(Samples samples) {
    if (samples.empty())
        throw std::logic_error("no samples");
    std::ranges::sort(samples);
    const std::size_t half = samples.size() / 2;
    const double median = samples.size() % 2 == 1 ? samples[half] : (samples[half - 1] + samples[half]) / 2;
    return {.median = median, .min = samples.front(), .max = samples.back()};
}

std::string verdict(bool met) {
    return met ? "met" : "MISSED";
}

std::string figure(double value, const std::string &unit) {
    return with_unit(digits(value), unit);
}

std::string figure(const Spread &spread, const std::string &unit) {
    return with_unit(digits(spread.median) + " (" + digits(spread.min) + ".." + digits(spread.max) + ")",
                     unit);
}

Row row_of(const Comparison &comparison) {
    Samples ratios;
    for (std::size_t i = 0; i < comparison.ours.size(); ++i)
        ratios.push_back(comparison.ours[i] / comparison.others.at(i));
    const Spread ratio = spread_of(ratios);
    std::string target = "none";
    if (comparison.limit > 0)
        target = limit_text(comparison.limit, "") + verdict(ratio.median <= comparison.limit);
    return {.name = comparison.name,
            .ours = figure(spread_of(comparison.ours).median, comparison.unit),
            .other = comparison.other + ": " + figure(spread_of(comparison.others).median, comparison.unit),
            .ratio = figure(ratio, ""),
            .target = target};
}

Row row_of(const Bound &bound) {
    const Spread spread = spread_of(bound.ours);
    return {.name = bound.name,
            .ours = figure(spread, bound.unit),
            .other = "",
            .ratio = "",
            .target = limit_text(bound.limit, bound.unit) + verdict(spread.median <= bound.limit)};
}

void print(const std::vector<Row> &rows) {
    const Row head = {.name = "row",
                      .ours = "ours",
                      .other = "compared with",
                      .ratio = "ratio (min..max)",
                      .target = "target"};
    std::array<std::size_t, columns> widths = {};
    const auto widen = [&widths](const Row &row) {
        const auto texts = cells(row);
        for (std::size_t i = 0; i < columns; ++i)
            widths[i] = std::max(widths[i], texts[i]->size());
    };
    widen(head);
    std::ranges::for_each(rows, widen);
    print_line(head, widths);
    for (const std::size_t width : widths)
        std::printf("|%s", std::string(width + 2, '-').c_str());
    std::printf("|\n");
    for (const Row &row : rows)
        print_line(row, widths);
}

// The worked examples of records to the event daemon.
#pragma once

#include "support/text.h"

#include <map>
#include <string>
#include <vector>

inline constexpr int ANY_BYTE = -1; // differs from sender to sender

// The examples of tests/data/records.txt by name, without their "-record".
inline std::map<std::string, std::vector<int>> read_records() {
    std::map<std::string, std::vector<int>> records;
    std::ifstream file(ZYN_TEST_DATA "/records.txt");
    for (std::string word, name; file >> word;)
        if (word.front() == '#')
            std::getline(file, word);
        else if (word.back() == ':')
            name = word.substr(0, word.find('-'));
        else
            records[name].insert(records[name].end(), word.size() > 2 ? std::stoul(word.substr(3)) : 1,
                                 word.front() == '?' ? ANY_BYTE : std::stoi(word.substr(0, 2), nullptr, 16));
    return records;
}

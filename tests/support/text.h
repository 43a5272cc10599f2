// Texts taken apart, and files read whole.
#pragma once

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

inline std::string read_file(const std::string &path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

// The pieces between separators; behind the last one only what there is.
inline std::vector<std::string> split(const std::string &text, char separator = '\n') {
    std::vector<std::string> pieces;
    std::istringstream stream(text);
    for (std::string piece; std::getline(stream, piece, separator);)
        pieces.push_back(piece);
    return pieces;
}

// Words parted by blanks, behind `first`; "~" stands for an empty word.
inline std::vector<std::string> split_words(const std::string &text, std::vector<std::string> first = {}) {
    std::istringstream stream(text);
    for (std::string word; stream >> word;)
        first.push_back(word == "~" ? "" : word);
    return first;
}

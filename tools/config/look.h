// A look at one file of an installation: its document as the store parses it, where its elements stand, and
// what is wrong with it.
#pragma once

#include "xmlin/parse.h"

#include <string>
#include <vector>

namespace config {

// Counted from 1; 0 where there is no place in the file to point at.
struct Place {
    int line;
    int column; // bytes
};

struct Problem {
    Place place;
    bool fatal; // the store cannot read the file
    std::string text;
};

struct Look {
    Document document; // null when the store cannot read the file
    std::vector<Problem> problems;
};

// For the length of a scope: the store's parser tells where elements stand, tries no file a second time, and
// writes nothing to standard error. One at a time.
class Watch {
public:
    Watch();
    ~Watch();
    Watch(const Watch &) = delete;
    Watch &operator=(const Watch &) = delete;
};

// Parses a file, under a Watch.
Look look_at(const std::string &file);

// Where the start tag of an element begins that has been parsed under a Watch.
Place place_of(const xmlNode *element);

// As FILE:LINE:COLUMN.
std::string describe_place(const std::string &file, Place place);

} // namespace config

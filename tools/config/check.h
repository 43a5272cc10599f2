// zynconfig check: what is wrong with an installation's configuration.
#pragma once

#include "store.h"

#include <string>

namespace config {

struct Report {
    std::string text; // a line a finding, and one that counts them
    int errors = 0;
    int warnings = 0;
    int infos = 0;
};

Report check(Store &store);

} // namespace config

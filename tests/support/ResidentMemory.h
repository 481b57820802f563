// The test process's resident memory, for tests that memory stays flat.
#pragma once

#include <fstream>
#include <string>

namespace zvtest {

// VmRSS of this process in KiB, -1 when it cannot be read.
inline long residentKiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
    return -1;
}

}  // namespace zvtest

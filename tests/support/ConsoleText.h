// Standard output of a piece of code, and the legacy console lines in it with
// their local times replaced, for exact comparisons.
#pragma once

#include <gtest/gtest.h>

#include <regex>
#include <string>

namespace zvtest {

// What `body` prints on standard output.
template <class Body>
std::string stdoutOf(Body&& body) {
    testing::internal::CaptureStdout();
    body();
    return testing::internal::GetCapturedStdout();
}

// Each "\n<yyyy-mm-dd hh:mm:ss>  " that opens a legacy console line becomes
// "\n<time>  ".
inline std::string withoutTimes(const std::string& out) {
    static const std::regex time("\n\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d  ");
    return std::regex_replace(out, time, "\n<time>  ");
}

}  // namespace zvtest

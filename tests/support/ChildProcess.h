// Child processes for tests of paths that end the process: the test program
// starts itself again with ZVTEST_SCENARIO set, and a hook that runs before
// main plays that scenario instead of the tests.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace zvtest {

struct ChildResult {
    bool exited = false;  // false: ended by a signal
    int status = -1;      // the exit status, or the signal's number
    std::string out;
    std::string err;

    bool succeeded() const { return exited && status == 0; }
};

using Scenario = void (*)();

// In the child, runs the scenario named by ZVTEST_SCENARIO and then exits
// with status 0 (unless the scenario ended the process itself); in any other
// process it does nothing. Call it from a namespace-scope initializer.
bool runRequestedScenario(const std::map<std::string, Scenario>& scenarios);

// Starts this program (or `program`, a link to it) as a child playing
// `scenario` in `directory` (empty: this one), and collects its output and
// status. An environment entry "NAME=value" replaces an inherited NAME; an
// entry "PREFIX*" drops every inherited variable whose name starts so.
ChildResult runChild(const std::string& scenario, const std::vector<std::string>& environment = {},
                     const std::string& program = "", const std::string& directory = "");

// The directory of the running test program (where libzvrepo.so is built).
std::string programDirectory();

// A fresh, empty path in the temporary directory.
std::string temporaryPath(const char* stem);

std::string readFile(const std::string& path);

}  // namespace zvtest

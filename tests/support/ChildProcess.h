// Child processes for tests of paths that end the process: the test program
// starts itself again with ZVTEST_SCENARIO set, and a hook that runs before
// main plays that scenario instead of the tests.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <sys/types.h>
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

// Another program, started with `arguments` and the test's environment, its
// standard output and error on pipes (standard input is /dev/null).
class RunningProgram {
public:
    RunningProgram(const std::string& program, const std::vector<std::string>& arguments);
    ~RunningProgram();  // kills the program if it still runs
    RunningProgram(const RunningProgram&) = delete;
    RunningProgram& operator=(const RunningProgram&) = delete;

    bool started() const { return pid_ > 0; }
    // Reads the program's output until `done(out)` holds (true) or
    // `timeoutMs` has passed (false).
    bool waitForOutput(const std::function<bool(const std::string& out)>& done, int timeoutMs);
    const std::string& out() const { return result_.out; }
    void signal(int number);
    // Reads the rest of the output and waits for the program to end.
    ChildResult finish();

private:
    // Reads what the pipes hold within `timeoutMs` (-1: until both close).
    void pump(int timeoutMs);
    pid_t pid_ = -1;
    int fds_[2] = {-1, -1};
    ChildResult result_;
};

// Runs a program to its end.
ChildResult runProgram(const std::string& program, const std::vector<std::string>& arguments);

// The directory of the running test program (where libzvrepo.so is built).
std::string programDirectory();

// A fresh, empty path in the temporary directory.
std::string temporaryPath(const char* stem);

// A fresh, empty directory in the temporary directory.
std::string temporaryDirectory(const char* stem);

// The names of a directory's entries, sorted.
std::vector<std::string> directoryEntries(const std::string& dir);

// Writes `text` to `path` and holds a lock on its first byte, as a process
// writing a dump there does; returns the open descriptor (-1 on failure).
int holdFirstByteLock(const std::string& path, const std::string& text);

std::string readFile(const std::string& path);

}  // namespace zvtest

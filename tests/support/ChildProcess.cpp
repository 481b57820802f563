#include "support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

extern char** environ;

namespace zvtest {

namespace {

const char* const kScenarioVariable = "ZVTEST_SCENARIO";

std::string executablePath() {
    char path[4096];
    ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    if (n < 0) return std::string();
    path[n] = 0;
    return path;
}

}  // namespace

bool runRequestedScenario(const std::map<std::string, Scenario>& scenarios) {
    const char* name = getenv(kScenarioVariable);
    if (!name) return false;
    auto it = scenarios.find(name);
    if (it == scenarios.end()) {
        fprintf(stderr, "unknown scenario %s\n", name);
        fflush(stderr);
        _exit(99);
    }
    it->second();
    fflush(stdout);
    fflush(stderr);
    exit(0);
}

ChildResult runChild(const std::string& scenario, const std::vector<std::string>& environment,
                     const std::string& program, const std::string& directory) {
    ChildResult result;
    std::vector<std::string> entries = environment;
    entries.push_back(std::string(kScenarioVariable) + "=" + scenario);
    // The length of the name part an entry matches inherited entries on.
    auto matched = [](const std::string& e) -> size_t {
        const size_t equals = e.find('=');
        if (equals != std::string::npos) return equals + 1;
        return !e.empty() && e.back() == '*' ? e.size() - 1 : 0;
    };
    const size_t own = entries.size();
    for (char** e = environ; *e; ++e) {
        bool replaced = false;
        for (size_t i = 0; i < own && !replaced; ++i)
            replaced = matched(entries[i]) > 0 && strncmp(*e, entries[i].c_str(), matched(entries[i])) == 0;
        if (!replaced) entries.emplace_back(*e);
    }
    std::erase_if(entries, [](const std::string& e) { return e.find('=') == std::string::npos; });
    std::vector<char*> envp;
    for (std::string& e : entries) envp.push_back(e.data());
    envp.push_back(nullptr);

    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return result;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    if (!directory.empty()) posix_spawn_file_actions_addchdir_np(&actions, directory.c_str());
    std::string path = program.empty() ? executablePath() : program;
    char* argv[] = {path.data(), nullptr};
    pid_t pid = -1;
    int rc = posix_spawn(&pid, path.c_str(), &actions, nullptr, argv, envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    close(err[1]);
    if (rc != 0) {
        close(out[0]);
        close(err[0]);
        return result;
    }
    // Both pipes at once, so that a child filling one never blocks.
    pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    std::string* sinks[2] = {&result.out, &result.err};
    int open = 2;
    while (open > 0) {
        if (poll(fds, 2, -1) < 0) break;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            char chunk[65536];
            ssize_t n = read(fds[i].fd, chunk, sizeof chunk);
            if (n > 0) {
                sinks[i]->append(chunk, static_cast<size_t>(n));
            } else {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            }
        }
    }
    int status = 0;
    waitpid(pid, &status, 0);
    result.exited = WIFEXITED(status);
    result.status = result.exited ? WEXITSTATUS(status) : WTERMSIG(status);
    return result;
}

std::string programDirectory() {
    std::string path = executablePath();
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

std::string temporaryPath(const char* stem) {
    static std::atomic<int> counter{0};
    const char* dir = getenv("TMPDIR");
    std::string path = std::string(dir && *dir ? dir : "/tmp") + "/" + stem + "-" + std::to_string(getpid()) + "-" +
                       std::to_string(counter++);
    unlink(path.c_str());
    return path;
}

std::string temporaryDirectory(const char* stem) {
    const std::string dir = temporaryPath(stem);
    std::filesystem::create_directory(dir);
    return dir;
}

std::vector<std::string> directoryEntries(const std::string& dir) {
    std::vector<std::string> names;
    for (const auto& e : std::filesystem::directory_iterator(dir)) names.push_back(e.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

int holdFirstByteLock(const std::string& path, const std::string& text) {
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return -1;
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_len = 1;
    if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        fcntl(fd, F_OFD_SETLK, &lock) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

RunningProgram::RunningProgram(const std::string& program, const std::vector<std::string>& arguments) {
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0) return;
    if (pipe2(err, O_CLOEXEC) != 0) {
        close(out[0]);
        close(out[1]);
        return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    std::vector<std::string> words{program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    close(err[1]);
    fds_[0] = out[0];
    fds_[1] = err[0];
    if (rc == 0) pid_ = pid;
}

RunningProgram::~RunningProgram() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    for (int fd : fds_)
        if (fd >= 0) close(fd);
}

void RunningProgram::pump(int timeoutMs) {
    pollfd fds[2] = {{fds_[0], POLLIN, 0}, {fds_[1], POLLIN, 0}};
    std::string* sinks[2] = {&result_.out, &result_.err};
    if ((fds_[0] < 0 && fds_[1] < 0) || poll(fds, 2, timeoutMs) <= 0) return;
    for (int i = 0; i < 2; ++i) {
        if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
        char chunk[65536];
        const ssize_t n = read(fds[i].fd, chunk, sizeof chunk);
        if (n > 0) {
            sinks[i]->append(chunk, static_cast<size_t>(n));
        } else {
            close(fds_[i]);
            fds_[i] = -1;
        }
    }
}

bool RunningProgram::waitForOutput(const std::function<bool(const std::string&)>& done, int timeoutMs) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done(result_.out)) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
        if (left <= 0 || (fds_[0] < 0 && fds_[1] < 0)) return false;
        pump(static_cast<int>(left));
    }
    return true;
}

void RunningProgram::signal(int number) {
    if (pid_ > 0) kill(pid_, number);
}

ChildResult RunningProgram::finish() {
    while (fds_[0] >= 0 || fds_[1] >= 0) pump(-1);
    if (pid_ > 0) {
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        result_.exited = WIFEXITED(status);
        result_.status = result_.exited ? WEXITSTATUS(status) : WTERMSIG(status);
    }
    return result_;
}

ChildResult runProgram(const std::string& program, const std::vector<std::string>& arguments) {
    RunningProgram running(program, arguments);
    return running.finish();
}

}  // namespace zvtest

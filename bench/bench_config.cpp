// What the XML configuration costs, in one run:
//
//   load        loading one document of 100 appenders and 1000 loggers (each
//               logger with a level and two appender references), zvlog's
//               DOMConfigurator beside log4cxx's on the equivalent document
//               (log4j vocabulary); console appenders with a pattern layout,
//               so that no file is opened and the figure is parse + build.
//               The configuration is reset between loads, outside the time.
//   disabled    a DEBUG call on a logger at WARN, without and then with a
//               watched configuration looking every 100 ms
//   sync file   an INFO call through a synchronous, buffered FileAppender,
//               without and then with the same watch (the time includes the
//               final flush)
//
//   bench_config [--reps=N] [--dir=DIR]
//
// Each case runs --reps times (5 by default); the table shows medians.

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "zvlog/DOMConfigurator.h"
#include "zvlog/zvlog.h"

#if ZVLOG_BENCH_HAVE_LOG4CXX
#include <log4cxx/logmanager.h>
#include <log4cxx/xml/domconfigurator.h>
#endif

namespace fs = std::filesystem;
using namespace zvs::zvlib::zvlog;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kAppenders = 100;
constexpr int kLoggers = 1000;

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

double seconds(Clock::time_point from) { return std::chrono::duration<double>(Clock::now() - from).count(); }

std::string zvlogDocument() {
    std::string doc = "<?xml version=\"1.0\"?>\n<configuration>\n";
    for (int a = 0; a < kAppenders; ++a)
        doc += "<appender name=\"bench.a" + std::to_string(a) +
               "\" class=\"ConsoleAppender\"><layout class=\"PatternLayout\">"
               "<param name=\"Pattern\" value=\"%d %-5p %c - %m%n\"/></layout></appender>\n";
    for (int l = 0; l < kLoggers; ++l)
        doc += "<logger name=\"bench.part" + std::to_string(l % 10) + ".logger" + std::to_string(l) +
               "\" additivity=\"false\"><level value=\"INFO\"/><appender-ref name=\"bench.a" +
               std::to_string(l % kAppenders) + "\"/><appender-ref name=\"bench.a" +
               std::to_string((l * 7 + 3) % kAppenders) + "\"/></logger>\n";
    return doc + "<root><level value=\"WARN\"/></root>\n</configuration>\n";
}

std::string log4cxxDocument() {
    std::string doc = "<?xml version=\"1.0\"?>\n<log4j:configuration xmlns:log4j=\"http://jakarta.apache.org/log4j/\">\n";
    for (int a = 0; a < kAppenders; ++a)
        doc += "<appender name=\"bench.a" + std::to_string(a) +
               "\" class=\"org.apache.log4j.ConsoleAppender\"><layout class=\"org.apache.log4j.PatternLayout\">"
               "<param name=\"ConversionPattern\" value=\"%d %-5p %c - %m%n\"/></layout></appender>\n";
    for (int l = 0; l < kLoggers; ++l)
        doc += "<logger name=\"bench.part" + std::to_string(l % 10) + ".logger" + std::to_string(l) +
               "\" additivity=\"false\"><level value=\"INFO\"/><appender-ref ref=\"bench.a" +
               std::to_string(l % kAppenders) + "\"/><appender-ref ref=\"bench.a" +
               std::to_string((l * 7 + 3) % kAppenders) + "\"/></logger>\n";
    return doc + "<root><level value=\"WARN\"/></root>\n</log4j:configuration>\n";
}

void write(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

double loadZvlog(const std::string& path) {
    BasicConfigurator::resetConfiguration();
    DOMConfigurator configurator;
    const auto start = Clock::now();
    const bool ok = configurator.configure(path.c_str());
    const double s = seconds(start);
    Logger* last = Logger::getRepository()->exists("bench.part9.logger999");
    if (!ok || !last || last->getAllAppenders().size() != 2) std::fprintf(stderr, "zvlog: the document did not load\n");
    return s;
}

#if ZVLOG_BENCH_HAVE_LOG4CXX
double loadLog4cxx(const std::string& path) {
    log4cxx::LogManager::resetConfiguration();
    const auto start = Clock::now();
    log4cxx::xml::DOMConfigurator::configure(path);
    const double s = seconds(start);
    if (log4cxx::Logger::getLogger("bench.part9.logger999")->getAllAppenders().size() != 2)
        std::fprintf(stderr, "log4cxx: the document did not load\n");
    return s;
}
#endif

// ns per call of `body` repeated n times.
double perCall(long n, const std::function<void(long)>& body) {
    const auto start = Clock::now();
    body(n);
    return seconds(start) * 1e9 / static_cast<double>(n);
}

}  // namespace

int main(int argc, char** argv) {
    int reps = 5;
    std::string base = "/tmp";
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--reps=", 7) == 0) reps = std::max(1, std::atoi(argv[i] + 7));
        else if (std::strncmp(argv[i], "--dir=", 6) == 0) base = argv[i] + 6;
        else {
            std::fprintf(stderr, "usage: bench_config [--reps=N] [--dir=DIR]\n");
            return 2;
        }
    }
    const std::string dir = base + "/zvlog-bench-config-" + std::to_string(::getpid());
    fs::create_directories(dir);

    // ---- load -----------------------------------------------------------
    const std::string zvDoc = dir + "/zvlog.xml";
    write(zvDoc, zvlogDocument());
    std::vector<double> zv;
    for (int r = 0; r < reps + 1; ++r) {
        const double s = loadZvlog(zvDoc);
        if (r > 0) zv.push_back(s);  // the first load also starts Xerces
    }
    std::printf("%-44s %10s\n", "case", "median");
    std::printf("%-44s %8.2f ms   (%zu bytes)\n", "load 100 appenders, 1000 loggers: zvlog", median(zv) * 1e3,
                static_cast<size_t>(fs::file_size(zvDoc)));
#if ZVLOG_BENCH_HAVE_LOG4CXX
    const std::string l4Doc = dir + "/log4cxx.xml";
    write(l4Doc, log4cxxDocument());
    std::vector<double> l4;
    for (int r = 0; r < reps + 1; ++r) {
        const double s = loadLog4cxx(l4Doc);
        if (r > 0) l4.push_back(s);
    }
    std::printf("%-44s %8.2f ms   (%zu bytes)\n", "load 100 appenders, 1000 loggers: log4cxx", median(l4) * 1e3,
                static_cast<size_t>(fs::file_size(l4Doc)));
    log4cxx::LogManager::resetConfiguration();
#else
    std::printf("%-44s %10s\n", "load ...: log4cxx", "not built");
#endif
    BasicConfigurator::resetConfiguration();

    // ---- the logging path, with and without a watch --------------------
    LoggerRepository* repo = Logger::getRepository();
    Logger* quiet = repo->getLogger("bench.config.quiet");
    quiet->setLevel(LEVEL_WARN);
    Logger* file = repo->getLogger("bench.config.file");
    file->setLevel(LEVEL_INFO);
    file->setAdditivity(false);
    const std::string logPath = dir + "/sync.log";

    const std::string watched = dir + "/watched.xml";
    write(watched, "<configuration><logger name=\"bench.config.watched\"><level value=\"INFO\"/></logger></configuration>");

    constexpr long kDisabled = 200000000;
    constexpr long kFile = 2000000;
    auto disabled = [&] {
        return perCall(kDisabled, [&](long n) {
            for (long i = 0; i < n; ++i) ZVLOG_DEBUG(quiet, "iteration %d value %s", static_cast<int>(i), "short");
        });
    };
    auto syncFile = [&] {
        fs::remove(logPath);
        FileAppender appender("bench.config.sync");
        appender.setFile(logPath.c_str());
        appender.setLayout(new PatternLayout("%d %p %c - %m%n"));
        file->addAppender(appender);
        const double ns = perCall(kFile, [&](long n) {
            for (long i = 0; i < n; ++i) ZVLOG_INFO(file, "iteration %d value %s", static_cast<int>(i), "short");
            appender.close();
        });
        file->removeAppender(appender);
        return ns;
    };

    std::vector<double> d0, d1, f0, f1;
    for (int r = 0; r < reps; ++r) {
        d0.push_back(disabled());
        f0.push_back(syncFile());
        DOMConfigurator configurator;
        configurator.configureAndWatch({watched}, 100);
        d1.push_back(disabled());
        f1.push_back(syncFile());
    }  // each watch ends with its configurator
    std::printf("%-44s %8.2f ns\n", "disabled call", median(d0));
    std::printf("%-44s %8.2f ns\n", "disabled call, watch at 100 ms", median(d1));
    std::printf("%-44s %8.2f ns\n", "sync file (buffered FileAppender)", median(f0));
    std::printf("%-44s %8.2f ns\n", "sync file, watch at 100 ms", median(f1));

    fs::remove_all(dir);
    return 0;
}

// The XML logging configuration: DOMConfigurator loads a file of appenders,
// layouts, filters and loggers, and can watch it and load it again when it
// changes; ZVLOG_Enable is the one start-up call of a program of the suite.
//
//   <configuration reset="true">
//     <level value="ALL"/>
//     <appender name="console" class="ConsoleAppender">
//       <layout class="PatternLayout"><param name="Pattern" value="%d %-5p %c - %m%n"/></layout>
//     </appender>
//     <logger name="capture.reader" additivity="false">
//       <level value="DEBUG"/><appender-ref name="console"/>
//     </logger>
//     <root><level value="WARN"/><appender-ref name="console"/></root>
//   </configuration>
//
// Element, attribute, class, parameter and level names and the words "true"
// and "false" are read without regard to case; appender names are exact.
#pragma once

#include <string>
#include <vector>

#include "zvlog/Export.h"

namespace zvs::zvlib::zvlog {

class DOMConfiguratorImpl;

class ZVLOG_API DOMConfigurator {
public:
    DOMConfigurator();
    // Stops the watch, if one runs.
    ~DOMConfigurator();
    DOMConfigurator(const DOMConfigurator&) = delete;
    DOMConfigurator& operator=(const DOMConfigurator&) = delete;

    // Loads one file: the name as it stands, else (when relative) beside the
    // executable, else in the working directory. False when no such file is
    // readable or the document could not be parsed.
    bool configure(const char* fileName);
    // Loads the first readable file of the candidates, in order.
    bool configure(const std::vector<std::string>& candidates);
    // Loads the first readable candidate on a "ConfigWatchThread" and looks
    // every intervalMs milliseconds whether it changed (time or size), was
    // removed (the configuration is reset) or appeared. Returns once the first
    // look has been made. An interval of 0 ends the process with status 12.
    void configureAndWatch(const std::vector<std::string>& candidates, unsigned int intervalMs);
    // Ends the watch; nothing happens when none runs.
    void stopWatch();

private:
    DOMConfiguratorImpl* impl_;
};

class ZVLOG_API BasicConfigurator {
public:
    // Every logger locked, the repository's configuration reset (appenders
    // closed and detached, levels unset), the locks released.
    static void resetConfiguration();
};

}  // namespace zvs::zvlib::zvlog

// Switches logging on: applies the installation's drop-in files ("qmr-*.xml",
// "sca-*.xml", "app-<application>*.xml" from <Lib>/utl/logging/ and the
// ConfLogging directory), then loads and watches the first of
// zvlog-<instance>.xml, zvlog-<application>.xml and zvlog.xml in the "Conf"
// directory, every intervalMs milliseconds. The configurator belongs to the
// caller; destroying it stops the watch.
ZVLOG_API void ZVLOG_Enable(zvs::zvlib::zvlog::DOMConfigurator* configurator, unsigned int intervalMs);

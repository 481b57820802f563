// The logging library: include this one header.
#pragma once

#include "zvlog/Appender.h"
#include "zvlog/DOMConfigurator.h"
#include "zvlog/FileAppender.h"
#include "zvlog/Filter.h"
#include "zvlog/Layout.h"
#include "zvlog/Level.h"
#include "zvlog/Log.h"
#include "zvlog/LogBuffer.h"
#include "zvlog/Logger.h"
#include "zvlog/LoggingEvent.h"
#include "zvlog/LoggingTime.h"
#include "zvlog/ReportAppender.h"
#include "zvlog/SyslogAppender.h"
#include "zvlog/WriterAppender.h"

// The six standard loggers and their effective-level bytes, which stay 255
// ("OFF") until a configuration gives the loggers a level.
ZVLOG_API extern zvs::zvlib::zvlog::Logger* zvlog_std_utility;
ZVLOG_API extern zvs::zvlib::zvlog::Logger* zvlog_std_utility_calltrace;
ZVLOG_API extern zvs::zvlib::zvlog::Logger* zvlog_std_system;
ZVLOG_API extern zvs::zvlib::zvlog::Logger* zvlog_std_system_calltrace;
ZVLOG_API extern zvs::zvlib::zvlog::Logger* zvlog_std_application;
ZVLOG_API extern zvs::zvlib::zvlog::Logger* zvlog_std_application_calltrace;
ZVLOG_API extern unsigned char zvlog_std_utility_effective_level;
ZVLOG_API extern unsigned char zvlog_std_utility_calltrace_effective_level;
ZVLOG_API extern unsigned char zvlog_std_system_effective_level;
ZVLOG_API extern unsigned char zvlog_std_system_calltrace_effective_level;
ZVLOG_API extern unsigned char zvlog_std_application_effective_level;
ZVLOG_API extern unsigned char zvlog_std_application_calltrace_effective_level;

// True once the library's second initialisation phase has completed.
ZVLOG_API bool zvlogInitialized();
ZVLOG_API bool zvlogIsSingleThreaded();

// How the running program was built: the nine BuildContext_... variables that
// each program of the suite exports, read back by the library.
//
// A program defines its variables once, in one source file, at namespace scope:
//
//     #include "zvlog/BuildContext.h"
//     ZVLOG_DEFINE_BUILD_CONTEXT("zvcapture", "12.3.0.1", "Release", "Oracle", "19c");
//
// and links with -rdynamic (in CMake: set_target_properties(prog PROPERTIES
// ENABLE_EXPORTS ON)). Without it the variables stay out of the program's
// dynamic symbol table and the library cannot see them; the program then gets a
// build context holding only BuildProgramString and BuildProgramType. Only
// the main program's variables count: a shared library that defines them
// (this one does, for its own build) is never taken for the program.
#pragma once

#include "zvlog/CContext.h"
#include "zvlog/Export.h"

// Build date and time from the compiler's __DATE__ ("Mmm dd yyyy") and
// __TIME__ ("hh:mm:ss"), as seconds since 1970. The compiler gives its local
// time; it is taken as UTC.
namespace zvs::zvlib::zvlog::detail {

constexpr int buildDigit(char c) { return c >= '0' && c <= '9' ? c - '0' : 0; }

constexpr long long buildDateTime(const char* date, const char* time) {
    const char* months = "JanFebMarAprMayJunJulAugSepOctNovDec";
    int month = 0;
    for (int m = 0; m < 12; ++m)
        if (date[0] == months[3 * m] && date[1] == months[3 * m + 1] && date[2] == months[3 * m + 2])
            month = m + 1;
    int day = buildDigit(date[4]) * 10 + buildDigit(date[5]);
    int year = buildDigit(date[7]) * 1000 + buildDigit(date[8]) * 100 + buildDigit(date[9]) * 10 +
               buildDigit(date[10]);
    // Days since 1970-01-01 of a civil date (proleptic Gregorian calendar).
    int y = month <= 2 ? year - 1 : year;
    int era = (y >= 0 ? y : y - 399) / 400;
    int yearOfEra = y - era * 400;
    int dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    int dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    long long days = static_cast<long long>(era) * 146097 + dayOfEra - 719468;
    int hours = buildDigit(time[0]) * 10 + buildDigit(time[1]);
    int minutes = buildDigit(time[3]) * 10 + buildDigit(time[4]);
    int seconds = buildDigit(time[6]) * 10 + buildDigit(time[7]);
    return days * 86400 + hours * 3600 + minutes * 60 + seconds;
}

}  // namespace zvs::zvlib::zvlog::detail

// The build host: pass it from the build, e.g. in CMake
//     cmake_host_system_information(RESULT host QUERY FQDN)
//     target_compile_definitions(prog PRIVATE ZVLOG_BUILD_HOST_NAME="${host}")
#ifndef ZVLOG_BUILD_HOST_NAME
#define ZVLOG_BUILD_HOST_NAME ""
#endif

#if defined(__x86_64__)
#define ZVLOG_BUILD_OS_ARCH "x64"
#elif defined(__aarch64__)
#define ZVLOG_BUILD_OS_ARCH "arm64"
#elif defined(__i386__)
#define ZVLOG_BUILD_OS_ARCH "x86"
#else
#define ZVLOG_BUILD_OS_ARCH ""
#endif

// All nine values given explicitly; dateTime is in seconds since 1970.
#define ZVLOG_DEFINE_BUILD_CONTEXT_EX(application, version, config, dbms, dbmsVersion, dateTime,      \
                                      hostName, os, osArch)                                           \
    extern "C" {                                                                                     \
    __attribute__((visibility("default"), used)) const char* BuildContext_BuildApplication =        \
        application;                                                                                 \
    __attribute__((visibility("default"), used)) const char* BuildContext_BuildVersion = version;   \
    __attribute__((visibility("default"), used)) const char* BuildContext_BuildConfig = config;     \
    __attribute__((visibility("default"), used)) long long BuildContext_BuildDateTime = dateTime;   \
    __attribute__((visibility("default"), used)) const char* BuildContext_BuildHostName = hostName; \
    __attribute__((visibility("default"), used)) const char* BuildContext_BuildDBMS = dbms;         \
    __attribute__((visibility("default"), used)) const char* BuildContext_BuildDBMSVersion =        \
        dbmsVersion;                                                                                 \
    __attribute__((visibility("default"), used)) const char* BuildContext_BuildOS = os;             \
    __attribute__((visibility("default"), used)) const char* BuildContext_BuildOSArch = osArch;     \
    }                                                                                                \
    static_assert(true, "")

// The application's base name (a row of the program table), its version and
// build configuration, and the DBMS it is built for ("None" for none) with
// that DBMS's version. Date and time, host, OS ("Linux") and architecture come
// from the compilation of the file that holds the macro.
#define ZVLOG_DEFINE_BUILD_CONTEXT(application, version, config, dbms, dbmsVersion)              \
    ZVLOG_DEFINE_BUILD_CONTEXT_EX(application, version, config, dbms, dbmsVersion,               \
                                  ::zvs::zvlib::zvlog::detail::buildDateTime(__DATE__, __TIME__), \
                                  ZVLOG_BUILD_HOST_NAME, "Linux", ZVLOG_BUILD_OS_ARCH)

// Items read from the main program: BuildApplication, BuildVersion,
// BuildConfig, BuildDateTime (a pointer item holding the address of the
// program's long long), BuildHostName, BuildDBMS, BuildDBMSVersion, BuildOS,
// BuildOSArch for each variable the program exports (owned copies of the
// texts), then BuildProgramString (the product and program display name, " for "
// and the DBMS display name) and BuildProgramType (the program's type code).
class ZVLOG_API CBuildContext : public CContext {
public:
    CBuildContext();
    ~CBuildContext() override;

private:
    void SetProgramItems();
};

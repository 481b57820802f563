// The XML configurator behind DOMConfigurator: finding, parsing and loading
// a document, and the watch thread.
#pragma once

#include <sys/types.h>

#include <ctime>
#include <string>
#include <vector>

#include "zvlog/MultiThreading.h"

namespace zvs::zvlib::zvlog {

class DOMConfiguratorImpl {
public:
    DOMConfiguratorImpl();
    ~DOMConfiguratorImpl();

    // The first readable candidate, loaded; false when none is readable or
    // its document could not be parsed.
    bool configure(const std::vector<std::string>& candidates);
    void configureAndWatch(const std::vector<std::string>& candidates, unsigned int intervalMs);
    void stopWatch();

    // The name a candidate is read under: as it stands, beside the
    // executable or in the working directory; "" when none is readable.
    static std::string findFile(const std::string& name);

private:
    static unsigned int watchThread(void* self);
    void watchCycle(bool& configured);

    std::string fileName_;  // the file configure() read last
    unsigned int interval_ = 0;
    MultiThreading::Thread* watchThread_ = nullptr;
    MultiThreading::Event* stopEvent_ = nullptr;

    // The watch's own state, used by its thread only.
    std::vector<std::string> watchList_;
    MultiThreading::Event* startEvent_ = nullptr;
    bool haveStamp_ = false;
    timespec modified_{};
    off_t size_ = 0;
    // Besides time and size: another candidate, or a file put in place of
    // the old one within the same tick of the file system's clock.
    std::string loadedName_;
    ino_t inode_ = 0;
    dev_t device_ = 0;
};

// Takes the configuration lock (recursive: a load may reset the
// configuration, which applies the drop-in files again on the same thread)
// and then every logger's lock that this thread does not hold yet; releases
// them in the order taken. Raises made meanwhile are issued once everything
// is released, and logging from this thread is dropped meanwhile, since it
// would need a logger's lock that this thread holds.
class ConfigurationLock {
public:
    ConfigurationLock();
    ~ConfigurationLock();
    ConfigurationLock(const ConfigurationLock&) = delete;
    ConfigurationLock& operator=(const ConfigurationLock&) = delete;

private:
    struct State;
    State* state_;
};

}  // namespace zvs::zvlib::zvlog

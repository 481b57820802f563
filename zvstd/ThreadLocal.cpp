// Per-thread data slots over POSIX thread-specific data.
#include <pthread.h>

#include <algorithm>
#include <mutex>
#include <vector>

#include "zvlog/MultiThreading.h"
#include "zvstd/Fatal.h"
#include "zvstd/MultiThreadingInternal.h"

namespace zvs::zvlib::MultiThreading {

static_assert(sizeof(unsigned int) == sizeof(pthread_key_t), "the key field holds a pthread_key_t");

namespace {

// What a slot holds for one thread: the instance and who destroys it. The
// thread-specific-data destructor only gets the slot's value, so the creator
// travels with the instance.
struct Record {
    DataCreator* creator;
    void* data;
};

// The keys of every live ThreadLocal, for the explicit clean-up of library
// threads. Never destroyed: threads may end during static destruction.
struct Registry {
    std::mutex mutex;
    std::vector<pthread_key_t> keys;
};

Registry& registry() {
    static Registry* r = new Registry();
    return *r;
}

void destroyRecord(Record* record) {
    record->creator->destroy(record->data);
    delete record;
}

// As many rounds as POSIX gives destructors: an instance's destructor may
// make another thread-local instance.
constexpr int kCleanupRounds = 4;

}  // namespace

DataCreator::~DataCreator() = default;

// Slots must outlive the threads that use them: deleting a slot destroys the
// calling thread's instance only; other threads' instances are left behind.
ThreadLocal::ThreadLocal(DataCreator* creator) : creator_(creator), key_(0) {
    pthread_key_t key;
    int rc = pthread_key_create(&key, &ThreadLocal::destroyInstance);
    if (rc != 0) zvFatalSystemError(static_cast<unsigned int>(rc), "zvs::zvlib::MultiThreading::ThreadLocal::ThreadLocal");
    key_ = key;
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.keys.push_back(key);
}

ThreadLocal::~ThreadLocal() {
    {
        Registry& r = registry();
        std::lock_guard<std::mutex> lock(r.mutex);
        r.keys.erase(std::remove(r.keys.begin(), r.keys.end(), key_), r.keys.end());
    }
    if (auto* record = static_cast<Record*>(pthread_getspecific(key_))) {
        pthread_setspecific(key_, nullptr);
        destroyRecord(record);
    }
    pthread_key_delete(key_);
    delete creator_;
}

void* ThreadLocal::get() {
    auto* record = static_cast<Record*>(pthread_getspecific(key_));
    if (ZVLOG_LIKELY(record != nullptr)) return record->data;
    record = new Record{creator_, creator_->create()};
    int rc = pthread_setspecific(key_, record);
    if (rc != 0) zvFatalSystemError(static_cast<unsigned int>(rc), "zvs::zvlib::MultiThreading::ThreadLocal::get");
    return record->data;
}

void* ThreadLocal::peek() const {
    auto* record = static_cast<Record*>(pthread_getspecific(key_));
    return record ? record->data : nullptr;
}

// Thread exit of a thread the library did not start.
void ThreadLocal::destroyInstance(void* record) { destroyRecord(static_cast<Record*>(record)); }

namespace detail {

void destroyThreadLocals() {
    std::vector<pthread_key_t> keys;
    for (int round = 0; round < kCleanupRounds; ++round) {
        {
            Registry& r = registry();
            std::lock_guard<std::mutex> lock(r.mutex);
            keys = r.keys;
        }
        bool destroyed = false;
        for (pthread_key_t key : keys) {
            auto* record = static_cast<Record*>(pthread_getspecific(key));
            if (!record) continue;
            pthread_setspecific(key, nullptr);
            destroyRecord(record);
            destroyed = true;
        }
        if (!destroyed) return;
    }
}

}  // namespace detail

}  // namespace zvs::zvlib::MultiThreading

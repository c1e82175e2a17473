// The registry behind LxManagerServices: a short list of live managers (usually one) under a
// mutex that guards nothing else, so callers may hold their own locks while they look up.
#include "LxManagerServices.h"

#include <mutex>
#include <vector>

namespace {

struct Entry {
    const LxManager* owner;
    LxThreadServices* threads;
    LxChannelArbiter* channels;
};

std::mutex& registryMutex() {
    static std::mutex* m = new std::mutex;  // never destroyed: static destructors may still look up
    return *m;
}

std::vector<Entry>& registry() {
    static std::vector<Entry>* entries = new std::vector<Entry>;
    return *entries;
}

Entry find(const LxManager* owner) {
    if (owner != nullptr) {
        std::lock_guard<std::mutex> guard(registryMutex());
        for (const Entry& e : registry()) {
            if (e.owner == owner) {
                return e;
            }
        }
    }
    return Entry{nullptr, nullptr, nullptr};
}

}  // namespace

void LxManagerServices::attach(const LxManager* owner, LxThreadServices* threads,
                               LxChannelArbiter* channels) {
    if (owner == nullptr) {
        return;
    }
    std::lock_guard<std::mutex> guard(registryMutex());
    for (Entry& e : registry()) {
        if (e.owner == owner) {
            e.threads = threads;
            e.channels = channels;
            return;
        }
    }
    registry().push_back(Entry{owner, threads, channels});
}

void LxManagerServices::detach(const LxManager* owner) {
    std::lock_guard<std::mutex> guard(registryMutex());
    std::vector<Entry>& entries = registry();
    for (auto it = entries.begin(); it != entries.end(); ++it) {
        if (it->owner == owner) {
            entries.erase(it);
            return;
        }
    }
}

KtThreadManager* LxManagerServices::threadManager(const LxManager* owner) {
    LxThreadServices* threads = find(owner).threads;
    return threads != nullptr ? threads->getThreadManager() : nullptr;
}

LxChannelArbiter* LxManagerServices::channels(const LxManager* owner) {
    return find(owner).channels;
}

#include "core/runtime/ThreadName.h"

#include <pthread.h>

namespace pavix {

void nameThisThread(const std::string& name) {
    const std::string kept = name.substr(0, 15);
#if defined(__APPLE__)
    pthread_setname_np(kept.c_str());
#else
    pthread_setname_np(pthread_self(), kept.c_str());
#endif
}

std::string thisThreadName() {
    char name[64] = {};
    if (pthread_getname_np(pthread_self(), name, sizeof name) != 0) {
        return {};
    }
    return name;
}

ThreadNameScope::ThreadNameScope(const std::string& name) : previous_(thisThreadName()) {
    nameThisThread(name);
}

ThreadNameScope::~ThreadNameScope() {
    nameThisThread(previous_);
}

}  // namespace pavix

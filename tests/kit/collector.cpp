#include "kit/collector.h"

#include <sys/ipc.h>
#include <sys/msg.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "kit/manifest.h"

namespace varnix::kit {

using collector::IpcKind;
using collector::IpcObject;

Keys keys_for_pid(pid_t pid) {
    key_t base = kKeyRangeBase + static_cast<key_t>(pid % kMaxPid) * kKeysPerPid;
    return Keys{base, base + 1, base + 2, base + 3, base + 4, base + 16};
}

pid_t owner_of_key(key_t key) {
    if (key < kKeyRangeBase || key >= kKeyRangeBase + kMaxPid * kKeysPerPid) return -1;
    return (key - kKeyRangeBase) / kKeysPerPid;
}

void Collector::created(const IpcObject& obj) { list_created({{obj}}); }

void Collector::removed(std::span<const IpcObject> objs) { unlist_removed(objs); }

int create_queue(key_t key) {
    const int id = msgget(key, IPC_CREAT | IPC_EXCL | collector::Access{}.mode);
    if (id < 0) {
        std::fprintf(stderr, "[kit] msgget (key 0x%08x): %s\n", static_cast<unsigned>(key), std::strerror(errno));
        return -1;
    }
    list_created({{IpcObject{IpcKind::msg, id, key}}});
    return id;
}

int remove_queue(int id) {
    const IpcObject queue{IpcKind::msg, id, 0};
    if (collector::remove_object(queue) != 0) return -1;
    unlist_removed({{queue}});
    return 0;
}

}  // namespace varnix::kit

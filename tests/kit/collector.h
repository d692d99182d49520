// The collector of test processes (tests, fuzz targets, benchmarks, the
// soak): the collector layer's objects under keys from the project's own key
// range, each listed in the creating process's manifest (kit/manifest.h)
// from the moment it exists until it is removed, so that varnix-ipc-clean can
// remove what a crashed process left.
#pragma once

#include <sys/types.h>

#include "collector/host_objects.h"

namespace varnix::kit {

using collector::Keys;

// The project's own key range: each process gets a block of 32 keys derived
// from its pid, so that concurrent test and demo processes never meet.
inline constexpr key_t kKeyRangeBase = 0x40000000;
inline constexpr int kKeysPerPid = 32;
inline constexpr pid_t kMaxPid = 1 << 22;

Keys keys_for_pid(pid_t pid);
// The pid whose block holds `key`, or -1 when the key is outside the range.
pid_t owner_of_key(key_t key);

class Collector : public collector::HostObjects {
public:
    using HostObjects::HostObjects;
    ~Collector() override { remove(); }

protected:
    void created(const collector::IpcObject& obj) override;
    void removed(std::span<const collector::IpcObject> objs) override;
};

// A new message queue of the kind the collector creates (exclusive, 0660),
// listed in the manifest until remove_queue removes it; the id, or -1 with a
// message on standard error.
int create_queue(key_t key);
// Removes a queue made by create_queue; 0, or -1 with errno.
int remove_queue(int id);

}  // namespace varnix::kit

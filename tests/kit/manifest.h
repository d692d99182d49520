// Manifests of the System V objects the tests' collector creates, so that the
// leftovers of a crashed test process can be removed without guessing.
//
// Each process that creates objects through kit::Collector keeps one manifest file,
// <manifest_dir()>/<pid>: a line "pid N", then one line "kind id key" per
// object it created and has not removed.  The file is rewritten under a
// process-wide mutex at every change and deleted when nothing is left; a
// forked child starts with an empty list of its own.  varnix-ipc-clean reads
// the manifests of processes that are gone and removes only the objects they
// list that still carry the listed key and belong to the current user.
#pragma once

#include <sys/types.h>

#include <span>
#include <string>
#include <vector>

#include "collector/ipc_object.h"

namespace varnix::kit {

using collector::IpcObject;

// The current user's manifest directory (/tmp/varnix-ipc-<uid>), created when
// missing; "" when it is not a directory that only this user can write.
std::string manifest_dir();

// Adds objects this process has just created to its manifest (an entry of the
// same kind and key, left by an object removed behind the kit's back, is
// replaced); drops removed objects by kind and id.  A manifest that cannot be
// written is reported on standard error once; the objects work all the same.
void list_created(std::span<const IpcObject> objects);
void unlist_removed(std::span<const IpcObject> objects);

struct Manifest {
    pid_t creator = -1;
    std::vector<IpcObject> objects;
};
// Parses a manifest file; false when it is missing or malformed.
bool read_manifest(const std::string& path, Manifest& out);

}  // namespace varnix::kit

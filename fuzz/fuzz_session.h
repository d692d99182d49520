// The collector of a fuzz target: created once per process, with keys from
// the pid, and removed at exit and, through the sanitizer's death callback,
// on a finding.
#pragma once

#include <fcntl.h>
#include <sanitizer/common_interface_defs.h>
#include <unistd.h>

#include <cstdlib>

#include "kit/session.h"

namespace varnix::fuzz {

inline kit::Session*& fuzz_session() {
    static kit::Session* session = nullptr;
    return session;
}

// Aborts when the collector cannot be had: every input would test nothing.
// The start banner goes to standard output; the fuzzer's own output does not.
inline kit::Session& start_fuzz_session(const char* prefix) {
    int null_fd = open("/dev/null", O_WRONLY);
    if (null_fd < 0 || dup2(null_fd, STDOUT_FILENO) < 0) std::abort();
    close(null_fd);
    fuzz_session() = kit::Session::start(prefix);
    if (!fuzz_session()) std::abort();
    __sanitizer_set_death_callback([] { fuzz_session()->remove(); });
    return *fuzz_session();
}

}  // namespace varnix::fuzz

// The agent's IPC objects seen from its other commands (set, top, snapshot),
// which attach to what a running `start` created, and the semaphore hold
// under which the shared tables' chains and stacks change.
#pragma once

#include "collector/agent_config.h"

namespace varnix::agent {

class Attached {
public:
    enum Part : unsigned { kQueInfo = 1, kPtrc = 2, kSvc = 4 };

    Attached() = default;
    ~Attached();
    Attached(const Attached&) = delete;
    Attached& operator=(const Attached&) = delete;

    // Attaches the parts asked for (the process-thread table read-only unless
    // `writable`); false, with a line on standard error, when an object is
    // missing (no agent runs with this configuration).
    bool open(const char* cfg, unsigned parts, bool writable = true);

    TRAN_LOGF_QUE_INFO* que_info = nullptr;
    PTRC_HASH_TBL* ptrc = nullptr;
    SVC_HASH_TBL* svc = nullptr;
    int ptrc_sem = -1;
    int svc_sem = -1;
};

// Holds semaphore 0 of a set (undone by the kernel should the holder die);
// the wait is bounded so that a stopped holder cannot freeze the agent.
class SemHold {
public:
    explicit SemHold(int semid, int timeout_ms = 1000);
    ~SemHold();
    SemHold(const SemHold&) = delete;
    SemHold& operator=(const SemHold&) = delete;
    bool owns() const { return owned_; }

private:
    int semid_;
    bool owned_;
};

}  // namespace varnix::agent

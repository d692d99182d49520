// Record sends switched off, for measuring the library's own work per record
// apart from the system call that sends it.
#pragma once

namespace varnix::bench {

// While off, the calling thread's msgsnd system calls succeed without being
// made.
void set_sends(bool on);

}  // namespace varnix::bench

// The library makes its msgsnd through syscall() (a bare system call, not the
// C library's cancellation point), and varnix-bench links with
// --wrap=syscall: every syscall() of the program comes here first.  While
// sends are off, a msgsnd succeeds without reaching the kernel; every other
// call, and every call while sends are on, goes on to the C library's.  The
// switch is the calling thread's own: the library sends from the thread
// whose entry made the record.  The benchmark's own msgsnd (the floor) and
// the drainer's msgrcv go through the C library's functions and never pass
// here.
#include "bench/send_switch.h"

#include <sys/syscall.h>

extern "C" long __real_syscall(long number, ...);

namespace {

thread_local bool sends_off = false;

}  // namespace

namespace varnix::bench {

void set_sends(bool on) { sends_off = !on; }

}  // namespace varnix::bench

// Called as the variadic syscall() is called: the x86-64 and AArch64 calling
// conventions pass its number and six integer arguments where a function of
// seven longs finds them, and the C library's syscall() hands on six
// arguments whatever the call passed.
extern "C" long __wrap_syscall(long number, long a, long b, long c, long d, long e, long f) {
    if (number == SYS_msgsnd && sends_off) return 0;
    return __real_syscall(number, a, b, c, d, e, f);  // a jump: the arguments stay where they are
}

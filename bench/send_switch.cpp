// The library makes its msgsnd through syscall() (a bare system call, not the
// C library's cancellation point), and varnix-bench links with
// --wrap=syscall: every syscall() of the program comes here first.  While
// sends are off, a msgsnd succeeds without reaching the kernel; every other
// call, and every call while sends are on, goes on to the C library's.  The
// switch is the calling thread's own: the library sends from the thread
// whose entry made the record.  The
// benchmark's own msgsnd (the floor) and the drainer's msgrcv go through the
// C library's functions and never pass here.
#include "bench/send_switch.h"

#include <sys/syscall.h>

#include <cstdarg>

extern "C" long __real_syscall(long number, ...);

namespace {

thread_local bool sends_off = false;

}  // namespace

namespace varnix::bench {

void set_sends(bool on) { sends_off = !on; }

}  // namespace varnix::bench

// The C library's syscall() takes up to six arguments and hands on six
// registers whatever the call passed; so does this one.
extern "C" long __wrap_syscall(long number, ...) {
    if (number == SYS_msgsnd && sends_off) return 0;
    va_list ap;
    va_start(ap, number);
    long a[6];
    for (long& x : a) x = va_arg(ap, long);
    va_end(ap);
    return __real_syscall(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}

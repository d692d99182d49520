/* A second traced process for the tests: starts tracing against the
 * collector named by the environment, sends one event from its main thread
 * and stops.  Prints "init <rc> event <rc> done <rc>" after the banner.
 * With the argument "hold" it opens the service HOLD_SVC instead, prints
 * "holding <rc>" and waits to be killed; each SIGUSR1 meanwhile starts a new
 * thread that sends one event of GID NEW-THREAD-GID and prints "thread <rc>".
 * With "service GID" it runs the service CHILD_SVC of that GID and prints
 * "service <rc> <rc>". */
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "varnix.h"

#define NONE NULL, 0
#define FIVE_NONE NONE, NONE, NONE, NONE, NONE

static volatile sig_atomic_t thread_asked;

static void on_usr1(int sig) {
    (void)sig;
    thread_asked = 1;
}

static void* new_thread(void* arg) {
    int rc = TRAN_EVENT(-1, NONE, NONE, "NEW-THREAD-GID", -1, NONE, NONE, NONE, NONE, "7778", -1, NONE, NONE,
                        "from a new thread", -1);
    printf("thread %d\n", rc);
    fflush(stdout);
    return arg;
}

static int hold(void) {
    sigset_t usr1, waiting;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    if (signal(SIGUSR1, on_usr1) == SIG_ERR || sigprocmask(SIG_BLOCK, &usr1, &waiting) != 0) return 1;
    int rc = TRAN_INIT();
    if (rc == 0) /* 3 header pairs and 22 telegram columns absent */
        rc = TRAN_START(-1, NONE, NONE, "HOLD-GID", -1, "HOLD_SVC", -1, FIVE_NONE, FIVE_NONE, FIVE_NONE, FIVE_NONE,
                        FIVE_NONE);
    printf("holding %d\n", rc);
    fflush(stdout);
    for (;;) {
        while (!thread_asked) sigsuspend(&waiting);
        thread_asked = 0;
        pthread_t t;
        if (pthread_create(&t, NULL, new_thread, NULL) != 0 || pthread_join(t, NULL) != 0) return 1;
    }
    return 0;
}

static int service(const char* gid) {
    int start = -1, end = -1, rc = TRAN_INIT();
    if (rc == 0) {
        start = TRAN_START(-1, NONE, NONE, gid, -1, "CHILD_SVC", -1, FIVE_NONE, FIVE_NONE, FIVE_NONE, FIVE_NONE,
                           FIVE_NONE);
        end = TRAN_END(-1, NONE, NONE, gid, -1, "CHILD_SVC", -1, FIVE_NONE, FIVE_NONE, FIVE_NONE, FIVE_NONE,
                       FIVE_NONE);
        TRAN_DONE();
        th_join_thread();
    }
    printf("service %d %d\n", start, end);
    return rc == 0 && start >= 0 && start < 99 && end >= 0 && end < 99 ? 0 : 1;
}

int main(int argc, char** argv) {
    if (argc > 1 && strcmp(argv[1], "hold") == 0) return hold();
    if (argc > 2 && strcmp(argv[1], "service") == 0) return service(argv[2]);
    int init = TRAN_INIT();
    int event = TRAN_EVENT(-1, NULL, 0, NULL, 0, "CHILD-GID", -1, NULL, 0, NULL, 0, NULL, 0, NULL, 0, "7777", -1,
                           NULL, 0, NULL, 0, "from the child", -1);
    int done = TRAN_DONE();
    th_join_thread();
    printf("init %d event %d done %d\n", init, event, done);
    return init == 0 && event >= 0 && done == 0 ? 0 : 1;
}

/* A second traced process for the tests: starts tracing against the
 * collector named by the environment, sends one event from its main thread
 * and stops.  Prints "init <rc> event <rc> done <rc>" after the banner.
 * With the argument "hold" it opens the service HOLD_SVC instead, prints
 * "holding <rc>" and waits to be killed; with "service GID" it runs the
 * service CHILD_SVC of that GID and prints "service <rc> <rc>". */
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "varnix.h"

#define NONE NULL, 0
#define FIVE_NONE NONE, NONE, NONE, NONE, NONE

static int hold(void) {
    int rc = TRAN_INIT();
    if (rc == 0) /* 3 header pairs and 22 telegram columns absent */
        rc = TRAN_START(-1, NONE, NONE, "HOLD-GID", -1, "HOLD_SVC", -1, FIVE_NONE, FIVE_NONE, FIVE_NONE, FIVE_NONE,
                        FIVE_NONE);
    printf("holding %d\n", rc);
    fflush(stdout);
    for (;;) pause();
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

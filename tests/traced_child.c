/* A second traced process for the tests: starts tracing against the
 * collector named by the environment, sends one event from its main thread
 * and stops.  Prints "init <rc> event <rc> done <rc>" after the banner. */
#include <stdio.h>

#include "varnix.h"

int main(void) {
    int init = TRAN_INIT();
    int event = TRAN_EVENT(-1, NULL, 0, NULL, 0, "CHILD-GID", -1, NULL, 0, NULL, 0, NULL, 0, NULL, 0, "7777", -1,
                           NULL, 0, NULL, 0, "from the child", -1);
    int done = TRAN_DONE();
    th_join_thread();
    printf("init %d event %d done %d\n", init, event, done);
    return init == 0 && event >= 0 && done == 0 ? 0 : 1;
}

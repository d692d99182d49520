/* A user's program: both installed headers, linked against the installed
 * libvarnix.  Without the environment TRAN_INIT must refuse with 106; it
 * prints the version of the headers it was built with. */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <stdlib.h>
#include <varnix.h>
#include <varnix_collector.h>

int main(void) {
    unsetenv("TRAN_HOME");
    int rc = TRAN_INIT();
    if (rc != VARNIX_RC_NO_ENV || get_log_flag_set("SEQ") != 0x83 || sizeof(TRAN_LOGF_QUE_INFO) != 248) {
        fprintf(stderr, "TRAN_INIT returned %d\n", rc);
        return 1;
    }
    printf("libvarnix %s\n", VARNIX_VERSION);
    return 0;
}

/* Both public headers compile as strict C99 (-std=c99 -pedantic-errors) and
 * link against libvarnix.so; the version macros agree with the build's. */
#include <stdio.h>
#include <string.h>

#include "varnix.h"
#include "varnix_collector.h"

int main(void) {
    const char *hangul = "a\xea\xb0\x80"; /* 'a' and one three-byte syllable */
    int failures = 0;
    failures += hcut(hangul, -1, 3, 1) != 1;
    failures += get_log_flag_set("SEQ") != 0x83;
    failures += sizeof(PTRC_HASH_TBL) != 603782160u;
    failures += strlen(log_home_dir) != 0;
    /* The telegram field table is writable data: a C host moves a field. */
    _CHNL_TYP_CD[0] = 210;
    failures += _GLBL_ID[0] != 9 || _ADTN_MSG[1] != 200 || _CHNL_TYP_CD[0] != 210;
    failures += TRAN_ENDX(-1, NULL, 0, NULL, 0, NULL, 0, "SVC", -1, NULL, 0, 1, 1) != VARNIX_RC_NOT_INIT;
#if VARNIX_VERSION_NUMBER < 10000 /* a host compares the number in #if */
    ++failures;
#endif
    failures += strcmp(VARNIX_VERSION, PROJECT_VERSION) != 0;
    printf("%d passed, %d failed\n", 8 - failures, failures);
    return failures != 0;
}

// Service entries called the way an application calls them: all 59 (or 41)
// arguments, texts NUL-terminated, absent ones null.
#pragma once

#include <array>
#include <string>

#include "varnix.h"

namespace varnix::test {

struct ServiceCall {
    int32_t tid = -1;
    const char* cls_cd = "CL";
    const char* dtl_cd = "D";
    std::string gid;
    std::string svc_id;
    const char* pid_str = nullptr;
    const char* date_str = nullptr;
    const char* time_str = nullptr;
    std::array<const char*, 22> tail{};  // telegram columns; for process tracing 8 columns and 5 parameters
};

using ServiceEntry = int32_t (*)(VARNIX_SERVICE_PARAMS);
using PtServiceEntry = int32_t (*)(VARNIX_PT_SERVICE_PARAMS);

#define VARNIX_TEST_HEAD(s)                                                                                        \
    s.tid, s.cls_cd, -1, s.dtl_cd, -1, s.gid.empty() ? nullptr : s.gid.c_str(), -1,                                \
        s.svc_id.empty() ? nullptr : s.svc_id.c_str(), -1, s.pid_str, -1, s.date_str, -1, s.time_str, -1
#define VARNIX_TEST_COL(s, i) s.tail[i], -1

inline int32_t call(ServiceEntry f, const ServiceCall& s) {
    return f(VARNIX_TEST_HEAD(s), VARNIX_TEST_COL(s, 0), VARNIX_TEST_COL(s, 1), VARNIX_TEST_COL(s, 2),
             VARNIX_TEST_COL(s, 3), VARNIX_TEST_COL(s, 4), VARNIX_TEST_COL(s, 5), VARNIX_TEST_COL(s, 6),
             VARNIX_TEST_COL(s, 7), VARNIX_TEST_COL(s, 8), VARNIX_TEST_COL(s, 9), VARNIX_TEST_COL(s, 10),
             VARNIX_TEST_COL(s, 11), VARNIX_TEST_COL(s, 12), VARNIX_TEST_COL(s, 13), VARNIX_TEST_COL(s, 14),
             VARNIX_TEST_COL(s, 15), VARNIX_TEST_COL(s, 16), VARNIX_TEST_COL(s, 17), VARNIX_TEST_COL(s, 18),
             VARNIX_TEST_COL(s, 19), VARNIX_TEST_COL(s, 20), VARNIX_TEST_COL(s, 21));
}

inline int32_t call(PtServiceEntry f, const ServiceCall& s) {
    return f(VARNIX_TEST_HEAD(s), VARNIX_TEST_COL(s, 0), VARNIX_TEST_COL(s, 1), VARNIX_TEST_COL(s, 2),
             VARNIX_TEST_COL(s, 3), VARNIX_TEST_COL(s, 4), VARNIX_TEST_COL(s, 5), VARNIX_TEST_COL(s, 6),
             VARNIX_TEST_COL(s, 7), VARNIX_TEST_COL(s, 8), VARNIX_TEST_COL(s, 9), VARNIX_TEST_COL(s, 10),
             VARNIX_TEST_COL(s, 11), VARNIX_TEST_COL(s, 12));
}

#undef VARNIX_TEST_HEAD
#undef VARNIX_TEST_COL

}  // namespace varnix::test

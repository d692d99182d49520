// The entries called the way an application calls them (the calling thread,
// NUL-terminated texts), for the soak and the benchmarks.
#pragma once

#include "varnix.h"

namespace varnix::bench {

using ServiceEntry = int32_t (*)(VARNIX_SERVICE_PARAMS);

// Header codes and names a program's records carry.
struct AppNames {
    const char* cls_cd;
    const char* recv_svc_cd;
    const char* module;
    const char* source;
};

// A service entry with the telegram columns a front end fills in.
inline int32_t service(ServiceEntry entry, const AppNames& n, const char* gid, const char* svc_id) {
    return entry(-1, n.cls_cd, -1, "1", -1, gid, -1, svc_id, -1, nullptr, 0, nullptr, 0, nullptr, 0,  //
                 "Y", -1, "KB0001", -1, "IBK", -1, n.recv_svc_cd, -1, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0,
                 nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0,
                 nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0);
}

inline int32_t call_start(const AppNames& n, const char* func) {
    return TRAN_CALLINFO_S(-1, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0,
                           n.module, -1, n.source, -1, 10, 0, func);
}

inline int32_t call_finish(const AppNames& n, const char* func) {
    return TRAN_CALLINFO_F(-1, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0,
                           n.module, -1, n.source, -1, 20, 0, func, -1, nullptr, 0);
}

}  // namespace varnix::bench

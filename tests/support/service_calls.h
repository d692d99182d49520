// Service entries called the way an application calls them: all 59 (or 41)
// arguments, texts NUL-terminated, absent ones null.
#pragma once

#include <array>
#include <string>
#include <tuple>
#include <utility>

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

// Every text as a (text, -1) pair: the header's seven, then `sizeof...(I)`
// columns of the tail.
template <typename Entry, size_t... I>
int32_t call_with_columns(Entry f, const ServiceCall& s, std::index_sequence<I...>) {
    auto text = [](const std::string& t) { return t.empty() ? nullptr : t.c_str(); };
    return std::apply(f, std::tuple_cat(std::make_tuple(s.tid, s.cls_cd, -1, s.dtl_cd, -1, text(s.gid), -1,
                                                        text(s.svc_id), -1, s.pid_str, -1, s.date_str, -1,
                                                        s.time_str, -1),
                                        std::make_tuple(s.tail[I], -1)...));
}

inline int32_t call(ServiceEntry f, const ServiceCall& s) {
    return call_with_columns(f, s, std::make_index_sequence<22>{});
}
inline int32_t call(PtServiceEntry f, const ServiceCall& s) {
    return call_with_columns(f, s, std::make_index_sequence<13>{});
}

}  // namespace varnix::test

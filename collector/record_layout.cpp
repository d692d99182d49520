#include "collector/record_layout.h"

#include <array>
#include <cstring>

namespace varnix::collector {
namespace {

constexpr uint32_t kBodyMax = sizeof(TRAN_LOG_MSG::text) - sizeof(uint32_t);

constexpr std::array<NamedField, 13> kHeader = {{
    {"log_type", 0, 1},
    {"cls_cd", 2, 2},
    {"dtl_cd", 5, 1},
    {"gid", 7, 32},
    {"proc_nm", 40, 15},
    {"svc_id", 56, 16},
    {"host_nm", 73, 64},
    {"pid", 138, 8, true},
    {"tid", 147, 15, true},
    {"idx", 163, 5, true},
    {"pidx", 169, 5, true},
    {"date_str", 175, 8},
    {"time_str", 184, 12},
}};

constexpr std::array<NamedField, 4> kEvent = {{
    {"evt_no", 197, 4},
    {"recv_svc_cd", 202, 12},
    {"chnl_class", 215, 4},
    {"msg_text", 220, 512},
}};

constexpr std::array<NamedField, 4> kErrinfo = {{
    {"evt_no", 197, 4},
    {"recv_svc_cd", 202, 12},
    {"chnl_class", 215, 4},
    {"msg_text", 220, 350},
}};

constexpr std::array<NamedField, 1> kInfo = {{{"msg_text", 197, 350}}};
// Call and SQL records: one text that the collector parses further.
constexpr std::array<NamedField, 1> kText = {{{"text", 197, 350}}};
constexpr std::array<NamedField, 2> kInfoEx = {{{"info_cd", 197, 4}, {"msg_text", 202, 350}}};

#define VARNIX_SERVICE_HEAD_FIELDS                                                                          \
    {"elapsed_us", 197, 10, true}, {"call_us", 208, 10, true}, {"depth", 219, 2, true}, {"tmsg_flag", 222, 1},               \
        {"trsc_grco_br", 224, 6}, {"chnl_typ_cd", 231, 3}, {"recv_svc_cd", 235, 12}, {"scrn_id", 248, 9},   \
        {"emp_no", 258, 7}, {"proc_rslt_dv_cd", 266, 1}, {"std_tmsg_err_cd", 268, 9}

constexpr std::array<NamedField, 25> kService = {{
    VARNIX_SERVICE_HEAD_FIELDS,
    {"std_tmsg_len", 278, 8},
    {"ipv6_adr", 287, 39},
    {"fst_trms_sys_cd", 327, 3},
    {"trms_sys_cd", 331, 3},
    {"rqst_rsps_dv_cd", 335, 1},
    {"trsc_sync_dv_cd", 337, 1},
    {"rslt_recv_svc_cd", 339, 12},
    {"eai_intf_id", 352, 16},
    {"dsbl_sys_cd", 369, 3},
    {"otsd_inst_cd", 373, 4},
    {"otsd_biz_cd", 378, 3},
    {"fst_trms_mdcl_ctt", 382, 39},
    {"opt_flag1", 422, 1},
    {"opt_flag2", 424, 1},
}};

constexpr std::array<NamedField, 16> kProcessTraceService = {{
    VARNIX_SERVICE_HEAD_FIELDS,
    {"pt_param1", 278, 30},
    {"pt_param2", 309, 20},
    {"pt_param3", 330, 20},
    {"pt_param4", 351, 30},
    {"pt_param5", 382, 3},
}};

#undef VARNIX_SERVICE_HEAD_FIELDS

constexpr uint32_t kProcessTraceBody = 386;

}  // namespace

std::span<const NamedField> header_fields() { return kHeader; }

std::span<const NamedField> body_fields(char log_type, uint32_t body_len) {
    switch (log_type) {
        case 'V': return kEvent;
        case 'E': return kErrinfo;
        case 'I': return kInfo;
        case 'B':
        case 'C':
        case 'Q': return kText;
        case 'X': return kInfoEx;
        case '1':
        case '2':
        case '9': return body_len == kProcessTraceBody ? std::span<const NamedField>(kProcessTraceService) : kService;
        default: return {};
    }
}

uint32_t body_length(const TRAN_LOG_MSG& m) {
    uint32_t n;
    std::memcpy(&n, m.text, sizeof n);
    return n < kBodyMax ? n : kBodyMax;
}

std::string_view field_text(const TRAN_LOG_MSG& m, const NamedField& f) {
    if (f.offset < 0 || f.width <= 0 || static_cast<uint32_t>(f.offset + f.width) > body_length(m)) return {};
    const char* v = m.text + sizeof(uint32_t) + f.offset;
    size_t n = static_cast<size_t>(f.width);
    // Most of a wide text field is padding: eight blanks at a time.
    constexpr uint64_t kBlanks = 0x2020202020202020ull;
    for (uint64_t w; n >= sizeof w && (std::memcpy(&w, v + n - sizeof w, sizeof w), w == kBlanks);) n -= sizeof w;
    while (n > 0 && v[n - 1] == ' ') --n;
    return std::string_view(v, n);
}

}  // namespace varnix::collector

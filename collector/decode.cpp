#include "collector/decode.h"

#include <array>
#include <cstring>

namespace varnix::kit {
namespace {

constexpr uint32_t kBodyMax = sizeof(TRAN_LOG_MSG::text) - sizeof(uint32_t);

constexpr std::array<FieldSpec, 13> kHeader = {{
    {"log_type", 0, 1},
    {"cls_cd", 2, 2},
    {"dtl_cd", 5, 1},
    {"gid", 7, 32},
    {"proc_nm", 40, 15},
    {"svc_id", 56, 16},
    {"host_nm", 73, 64},
    {"pid", 138, 8},
    {"tid", 147, 15},
    {"idx", 163, 5},
    {"pidx", 169, 5},
    {"date", 175, 8},
    {"time", 184, 12},
}};

constexpr std::array<FieldSpec, 4> kEvent = {{
    {"evt_no", 197, 4},
    {"recv_svc_cd", 202, 12},
    {"chnl_class", 215, 4},
    {"msg_text", 220, 512},
}};

constexpr std::array<FieldSpec, 4> kErrinfo = {{
    {"err_no", 197, 4},
    {"recv_svc_cd", 202, 12},
    {"chnl_class", 215, 4},
    {"msg_text", 220, 350},
}};

}  // namespace

std::span<const FieldSpec> header_fields() { return kHeader; }

std::span<const FieldSpec> body_fields(char log_type) {
    switch (log_type) {
        case 'V': return kEvent;
        case 'E': return kErrinfo;
        default: return {};
    }
}

uint32_t body_length(const TRAN_LOG_MSG& m) {
    uint32_t n;
    std::memcpy(&n, m.text, sizeof n);
    return n < kBodyMax ? n : kBodyMax;
}

std::string_view field_text(const TRAN_LOG_MSG& m, const FieldSpec& f) {
    if (f.offset < 0 || f.width <= 0 || static_cast<uint32_t>(f.offset + f.width) > body_length(m)) return {};
    std::string_view v(m.text + sizeof(uint32_t) + f.offset, static_cast<size_t>(f.width));
    size_t end = v.find_last_not_of(' ');
    return end == std::string_view::npos ? std::string_view{} : v.substr(0, end + 1);
}

std::string describe(const TRAN_LOG_MSG& m) {
    std::string out;
    auto add = [&](std::span<const FieldSpec> fields) {
        for (const FieldSpec& f : fields) {
            std::string_view v = field_text(m, f);
            if (v.empty()) continue;
            out.append(f.name).append(": ").append(v).append("\n");
        }
    };
    add(header_fields());
    add(body_fields(body_length(m) > 0 ? m.text[sizeof(uint32_t)] : ' '));
    return out;
}

}  // namespace varnix::kit

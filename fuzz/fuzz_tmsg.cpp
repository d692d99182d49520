// TRAN_STARTX and TRAN_ENDX on arbitrary telegrams and field tables, against
// a live collector.  An input is:
//   flags      bit 0 standard telegram, bit 1 telegram flag, bits 2-3 the
//              calls (start and end, start, end, start and two ends), bit 4
//              capture on, bits 5-6 the length (exact, -1 with a NUL added,
//              shorter than the bytes, no telegram), bit 7 no caller GID
//   service    one byte choosing the service id
//   moves      a count (0..7), then per move a table entry, a kind byte and
//              the entry's new offset and length (32 bits each, or 16 and 8)
//   cut        one byte: how much shorter a shorter length is
//   telegram   the rest, in a heap buffer of exactly its size, so that ASan
//              reports any read past what the length allows
// After each input the table, the control block and the thread's service
// state are put back and the queues drained, so every input starts alike.
// Captured telegrams go to /dev/null: the data file is a link to it.
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <memory>
#include <string>

#include "context/mtr_cxt.h"
#include "core/gvar.h"
#include "fuzz/byte_reader.h"
#include "fuzz/fuzz_session.h"
#include "varnix.h"

namespace {

using varnix::fuzz::ByteReader;

int32_t* const kTable[] = {
    _STD_TMSG_LEN,
    _GLBL_ID,
    _IPV6_ADR,
    _FST_TRMS_SYS_CD,
    _TRMS_SYS_CD,
    _RQST_RSPS_DV_CD,
    _TRSC_SYNC_DV_CD,
    _RECV_SVC_CD,
    _RSLT_RECV_SVC_CD,
    _EAI_INTF_ID,
    _PROC_RSLT_DV_CD,
    _DSBL_SYS_CD,
    _STD_TMSG_ERR_CD,
    _CHNL_TYP_CD,
    _EMP_NO,
    _TRSC_GRCO_CD,
    _TRSC_BR_NO,
    _SCRN_ID,
    _OTSD_INST_CD,
    _OTSD_BIZ_CD,
    _FST_TRMS_MDCL_CTT,
    _STD_TMSG_DAT_KIND_CD,
    _ERR_ORGN_ITEM_REPT_TCNT,
    _ERR_ORGN_ITEM_NM,
    _MSG_INFO_REPT_TCNT,
    _MSG_CD,
    _RSPS_MSG_CTT,
    _ADTN_MSG_REPT_TCNT,
    _ADTN_MSG,
};
constexpr size_t kEntries = std::size(kTable);
int32_t saved_table[kEntries][2];

const char* const kServices[] = {"ACCT_INQUIRY", "CLH-SERVICE", "GW-SERVICE", "SPFMIPPR0001", "SVC", nullptr};
const char kCallerGid[] = "20261123-CALLER-0000000000000001";

varnix::kit::Session* session = nullptr;
TRAN_LOGF_QUE_INFO saved_que_info;

void drain() { (void)session->collector().drain(); }

// The writer's data file of today, as a link to /dev/null.
bool capture_to_null() {
    const std::time_t now = std::time(nullptr);
    char date[16] = "";
    if (std::strftime(date, sizeof date, "%Y%m%d", std::localtime(&now)) == 0) return false;
    const char* name = varnix::gvar.cont_nm[0] ? varnix::gvar.cont_nm : varnix::gvar.proc_nm;
    const std::string path =
        std::string(tong_log_home_dir) + "/tong_log_" + date + "_" + name + "_" + std::to_string(getpid()) + ".dat";
    return symlink("/dev/null", path.c_str()) == 0;
}

void move_fields(ByteReader& in) {
    for (int n = in.byte() % 8; n > 0; --n) {
        int32_t* entry = kTable[in.byte() % kEntries];
        if (in.byte() & 1) {
            entry[0] = in.number<int32_t>();
            entry[1] = in.number<int32_t>();
        } else {
            entry[0] = in.number<int16_t>();
            entry[1] = in.number<int8_t>();
        }
    }
}

int32_t call(decltype(&TRAN_STARTX) entry, const char* gid, const char* svc, const char* tel, int32_t len,
             uint8_t flags) {
    return entry(-1, "FZ", -1, "1", -1, gid, -1, svc, -1, tel, len, flags & 1, flags & 2);
}

// What the input left: the table, the control block, the thread's service.
void settle() {
    for (size_t i = 0; i < kEntries; ++i) std::memcpy(kTable[i], saved_table[i], sizeof saved_table[i]);
    std::memcpy(session->collector().que_info(), &saved_que_info, sizeof saved_que_info);
    varnix::MTR_CXT_VAR* cxt = nullptr;
    if (varnix::get_mtr_cxt_var(-1, &cxt) == 0) {
        cxt->service_depth = 0;
        cxt->log_bit = 0;
        if (cxt->ptrc) cxt->ptrc->service_depth = 0;
    }
    drain();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    session = &varnix::fuzz::start_fuzz_session("varnix-fuzz-tmsg");
    std::memcpy(&saved_que_info, session->collector().que_info(), sizeof saved_que_info);
    for (size_t i = 0; i < kEntries; ++i) std::memcpy(saved_table[i], kTable[i], sizeof saved_table[i]);
    if (TRAN_INIT() != 0 || !capture_to_null()) std::abort();
    drain();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ByteReader in(data, size);
    const uint8_t flags = in.byte();
    const char* svc = kServices[in.byte() % std::size(kServices)];
    move_fields(in);
    const uint8_t cut = in.byte();
    const int length_mode = (flags >> 5) & 3;
    const size_t n = in.left();
    // One byte more for the NUL of a telegram passed with -1.
    std::unique_ptr<char[]> tel(new char[n + (length_mode == 1)]);
    if (n > 0) std::memcpy(tel.get(), in.rest(), n);
    int32_t len = static_cast<int32_t>(n);
    if (length_mode == 1) tel[n] = '\0', len = -1;
    if (length_mode == 2) len = cut < len ? len - cut : 0;
    const char* tmsg = length_mode == 3 ? nullptr : tel.get();
    const char* gid = flags & 0x80 ? nullptr : kCallerGid;
    if (flags & 0x10) session->collector().que_info()->tong_log_flag = '1';

    const int calls = (flags >> 2) & 3;
    if (calls != 2) (void)call(TRAN_STARTX, gid, svc, tmsg, len, flags);
    drain();
    if (calls != 1) (void)call(TRAN_ENDX, gid, svc, tmsg, len, flags);
    drain();
    if (calls == 3) (void)call(TRAN_ENDX, gid, svc, tmsg, len, flags);
    settle();
    return 0;
}

// TranStartX and TranEndX (a standard telegram's fields in one STTL block,
// and the telegram itself for full-message capture), TranStartM and TranEndM
// (the five process-tracing fields in one PT block).
//
// A block is copied into a zeroed buffer one byte longer than its layout,
// so a short block reads as zero bytes beyond its end and the error text at
// its tail is always terminated.  A longer block gives its leading bytes;
// nothing is copied past the buffer.
#include <array>
#include <cstdlib>
#include <cstring>

#include "api/notice.h"
#include "api/service.h"
#include "api/std_tmsg.h"
#include "core/entry_gate.h"
#include "core/log_printf.h"
#include "core/status.h"
#include "jni/tran_jni.h"
#include "record/record.h"
#include "tong/tong.h"

namespace varnix::jni {
namespace {

struct BlockField {
    int offset;
    int width;  // 0: not in the block, passed as absent
};

constexpr jsize kSttlLen = 531;
constexpr int kSttlGidWidth = 32;
constexpr int kRsltOffset = 127;
constexpr BlockField kSttlChnl{140, 3}, kSttlRecvSvc{87, 12};
constexpr int kSttlMsgOffset = 219;
// The 22 telegram columns of a service record, in record order.
constexpr std::array<BlockField, 22> kSttlColumns{{
    {0, 0},      // telegram flag
    {150, 6},    // transaction group company code and branch
    kSttlChnl,   // channel type
    kSttlRecvSvc,
    {156, 9},    // screen id
    {143, 7},    // employee number
    {kRsltOffset, 1},
    {131, 9},    // standard telegram error code
    {32, 8},     // standard telegram length
    {40, 39},    // IPv6 address
    {79, 3},     // first transmitting system
    {82, 3},     // transmitting system
    {85, 1},     // request/response
    {86, 1},     // synchronous/asynchronous
    {99, 12},    // result receiving service
    {111, 16},   // EAI interface id
    {128, 3},    // failing system
    {165, 4},    // outside institution
    {169, 3},    // outside business
    {172, 39},   // first transmitting medium content
    {212, 1},    // option flag 1
    {213, 1},    // option flag 2
}};

constexpr jsize kPtLen = 111;
// Eight telegram columns the PT block does not hold, then its five fields.
constexpr std::array<BlockField, 13> kPtColumns{{
    {0, 0}, {0, 0}, {0, 0}, {0, 0}, {0, 0}, {0, 0}, {0, 0}, {0, 0},
    {0, 30}, {30, 20}, {50, 20}, {70, 30}, {100, 3},
}};

constexpr Text kAbsent{nullptr, 0};

template <size_t N>
std::array<Text, N> columns_of(const char* block, const std::array<BlockField, N>& layout) {
    std::array<Text, N> tail;
    for (size_t i = 0; i < N; ++i)
        tail[i] = layout[i].width ? Text{block + layout[i].offset, layout[i].width} : kAbsent;
    return tail;
}

// The service's arguments: the Java GID, or the block's when the String is
// null or empty (an empty GID would leave the transaction unnamed).
ServiceArgs service_args(jlong tid, const JavaChars& gid, const JavaChars& svc, const char* block_gid,
                         std::span<const Text> tail) {
    const Text g = gid.text().len > 0 || !block_gid ? gid.text() : Text{block_gid, kSttlGidWidth};
    return ServiceArgs{native_tid(tid), kAbsent, kAbsent, g, svc.text(), kAbsent, kAbsent, kAbsent, tail};
}

void report_error(const ServiceArgs& a, const char* sttl, jsize len) {
    const char* evt = result_error_no(sttl[kRsltOffset]);
    if (!evt) return;
    (void)service_error(kStandardService, a);
    if (len != kSttlLen) {
        log_printf("<!> TRAN_ERROR STTL_PARAM length error (arrlen : %d, STTL_PARAM : %d) GID : %-*.*s", len,
                   kSttlLen, kSttlGidWidth, kSttlGidWidth, sttl);
        return;
    }
    Notice n;
    n.gid = a.gid;
    n.svc_id = a.svc_id;
    n.code = {evt, 4};
    n.recv_svc_cd = {sttl + kSttlRecvSvc.offset, kSttlRecvSvc.width};
    n.chnl_class = {internal_channel(sttl + kSttlChnl.offset) ? "C" : "O", 1};
    n.msg_text = {sttl + kSttlMsgOffset, -1};
    (void)tran_errinfo(a.tid, n);
}

// Start (api type 100) or end (101) of a service that carries a telegram.
void sttl_method(JNIEnv* env, const char* method, int api_type, jlong tid, jstring gid_s, jstring svc_s,
                 jbyteArray tmsg, jbyteArray sttl_a) {
    if (!traced()) return;
    if (!sttl_a) {
        log_printf("<!> API arg error, [%s] STTL ByteArray is null", method);
        return;
    }
    (void)save_tong_log4j(env, tid, tmsg, static_cast<int8_t>(api_type));
    char sttl[kSttlLen + 1] = {};
    const jsize len = copy_block(env, sttl_a, sttl, sizeof sttl);
    if (len < 0) return;
    const JavaChars gid(env, gid_s), svc(env, svc_s);
    const std::array<Text, 22> tail = columns_of(sttl, kSttlColumns);
    const ServiceArgs a = service_args(tid, gid, svc, sttl, tail);
    const EntryGate gate;
    if (api_type == kTranStartApi) {
        (void)service_start(kStandardService, a);
        return;
    }
    report_error(a, sttl, len);
    (void)service_end(kStandardService, a);
}

using ServiceFn = int (*)(const ServiceKind&, const ServiceArgs&);

void pt_method(JNIEnv* env, const char* method, ServiceFn fn, jlong tid, jstring gid_s, jstring svc_s,
               jbyteArray pt_a) {
    if (!traced()) return;
    if (!pt_a) {
        log_printf("<!> API arg error, [%s] PT_PARAM ByteArray is null", method);
        return;
    }
    char pt[kPtLen + 1] = {};
    if (copy_block(env, pt_a, pt, sizeof pt) < 0) return;
    const JavaChars gid(env, gid_s), svc(env, svc_s);
    const std::array<Text, 13> tail = columns_of(pt, kPtColumns);
    const EntryGate gate;
    (void)fn(kProcessTraceService, service_args(tid, gid, svc, nullptr, tail));
}

}  // namespace

int save_tong_log4j(JNIEnv* env, jlong tid, jbyteArray tmsg, int8_t api_type) {
    const EntryGate gate;
    if (!tmsg || !tong_capture_on()) return kOk;
    const jsize n = env->GetArrayLength(tmsg);
    char* rec = new_tong_record(n);
    if (!rec) return kOk;  // dropped: the telegram is not worth failing the service for
    env->GetByteArrayRegion(tmsg, 0, n, reinterpret_cast<jbyte*>(rec + kTongHeaderLen));
    if (cleared(env)) {
        std::free(rec);
        return kOk;
    }
    finish_tong_record(rec, n, api_type, table_field(_GLBL_ID).off);
    put_tong_record(rec, n, native_tid(tid), TongCaller::kJava);
    return kOk;
}

}  // namespace varnix::jni

using namespace varnix;
using namespace varnix::jni;

extern "C" {

JNIEXPORT void JNICALL Java_com_tolvo_tran_api_TranApiAdapter_TranStartX(JNIEnv* env, jobject, jlong tid, jstring gid,
                                                                         jstring svc_id, jbyteArray tmsg,
                                                                         jbyteArray sttl) {
    sttl_method(env, "TranStartX", kTranStartApi, tid, gid, svc_id, tmsg, sttl);
}

JNIEXPORT void JNICALL Java_com_tolvo_tran_api_TranApiAdapter_TranEndX(JNIEnv* env, jobject, jlong tid, jstring gid,
                                                                       jstring svc_id, jbyteArray tmsg,
                                                                       jbyteArray sttl) {
    sttl_method(env, "TranEndX", kTranEndApi, tid, gid, svc_id, tmsg, sttl);
}

JNIEXPORT void JNICALL Java_com_tolvo_tran_api_TranApiAdapter_TranStartM(JNIEnv* env, jobject, jlong tid, jstring gid,
                                                                         jstring svc_id, jbyteArray pt) {
    pt_method(env, "TranStartM", service_start, tid, gid, svc_id, pt);
}

JNIEXPORT void JNICALL Java_com_tolvo_tran_api_TranApiAdapter_TranEndM(JNIEnv* env, jobject, jlong tid, jstring gid,
                                                                       jstring svc_id, jbyteArray pt) {
    pt_method(env, "TranEndM", service_end, tid, gid, svc_id, pt);
}

}  // extern "C"

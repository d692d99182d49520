// TranEvent, TranErrorInfo, TranInfo, TranInfoEx, TranCallInfoS,
// TranCallInfoF, TranSqlId and TranSqlStmt.  Java parameter k (k >= 2) of the
// notice methods stands for the native pair 2k - 2, 2k - 1; the sub-class
// code (3) and the process id, date and time (6 to 8) are never taken from
// Java.  Message texts, the SQL id and the SQL text are free text (the
// platform's bytes, whole); every other String passes its characters with
// its length in UTF-16 units.
#include <cstdint>

#include "api/notice.h"
#include "core/entry_gate.h"
#include "jni/tran_jni.h"
#include "varnix.h"

namespace varnix::jni {
namespace {

using NoticeFn = int (*)(int32_t, const Notice&);

// The Strings of a notice method that reach the record.
struct NoticeStrings {
    jstring cls_cd, gid, svc_id, code, recv_svc_cd, chnl_class, msg_text;
    bool free_msg;  // the message as free text, else as characters
};

void notice_method(JNIEnv* env, jlong tid, NoticeFn fn, const NoticeStrings& s) {
    if (!traced()) return;
    const JavaChars cls(env, s.cls_cd), gid(env, s.gid), svc(env, s.svc_id), code(env, s.code),
        recv(env, s.recv_svc_cd), chnl(env, s.chnl_class);
    const FreeText free_msg(env, s.free_msg ? s.msg_text : nullptr);
    const JavaChars msg(env, s.free_msg ? nullptr : s.msg_text);
    Notice n;
    n.cls_cd = cls.text();
    n.gid = gid.text();
    n.svc_id = svc.text();
    n.code = code.text();
    n.recv_svc_cd = recv.text();
    n.chnl_class = chnl.text();
    n.msg_text = s.free_msg ? free_msg.text() : msg.text();
    const EntryGate gate;
    (void)fn(native_tid(tid), n);
}

// The 64-bit time values TranSqlStmt passes by address.  The native side
// reads a seconds/microseconds pair unless the statement number says
// microsecond counts, so each value has room for a pair (microseconds 0).
struct SqlTime {
    int64_t value;
    int64_t zero = 0;
};

}  // namespace
}  // namespace varnix::jni

using namespace varnix;
using namespace varnix::jni;

#define VARNIX_HEAD_PARAMS jstring p2, jstring, jstring p4, jstring p5, jstring, jstring, jstring

extern "C" {

JNIEXPORT void JNICALL Java_com_tolvo_tran_api_TranApiAdapter_TranEvent(JNIEnv* env, jobject, jlong tid,
                                                                        VARNIX_HEAD_PARAMS, jstring p9, jstring p10,
                                                                        jstring p11, jstring p12) {
    notice_method(env, tid, tran_event, {p2, p4, p5, p9, p10, p11, p12, true});
}

JNIEXPORT void JNICALL Java_com_tolvo_tran_api_TranApiAdapter_TranErrorInfo(JNIEnv* env, jobject, jlong tid,
                                                                            VARNIX_HEAD_PARAMS, jstring p9,
                                                                            jstring p10, jstring p11, jstring p12) {
    notice_method(env, tid, tran_errinfo, {p2, p4, p5, p9, p10, p11, p12, true});
}

JNIEXPORT void JNICALL Java_com_tolvo_tran_api_TranApiAdapter_TranInfo(JNIEnv* env, jobject, jlong tid,
                                                                       VARNIX_HEAD_PARAMS, jstring p9) {
    notice_method(env, tid, tran_info, {p2, p4, p5, nullptr, nullptr, nullptr, p9, true});
}

JNIEXPORT void JNICALL Java_com_tolvo_tran_api_TranApiAdapter_TranInfoEx(JNIEnv* env, jobject, jlong tid,
                                                                         VARNIX_HEAD_PARAMS, jstring p9,
                                                                         jstring p10) {
    notice_method(env, tid, tran_info_ex, {p2, p4, p5, p9, nullptr, nullptr, p10, false});
}

JNIEXPORT void JNICALL Java_com_tolvo_tran_api_TranApiAdapter_TranCallInfoS(JNIEnv* env, jobject, jlong tid,
                                                                            jstring source, jstring func, jint,
                                                                            jint start_opt) {
    if (!traced()) return;
    const JavaChars src(env, source), fn(env, func);
    const Text s = src.text();
    (void)TRAN_CALLINFO_S(native_tid(tid), nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0,
                          nullptr, 0, nullptr, 0, s.p, s.len, 0, start_opt, fn.get());
}

JNIEXPORT void JNICALL Java_com_tolvo_tran_api_TranApiAdapter_TranCallInfoF(JNIEnv*, jobject, jlong tid, jstring,
                                                                            jstring, jint dbio) {
    if (!traced()) return;
    constexpr int32_t kFinishRc = 88;
    (void)TRAN_CALLINFO_F(native_tid(tid), nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0,
                          nullptr, 0, nullptr, 0, nullptr, 0, 0, kFinishRc, nullptr, 0, dbio ? "DBIO" : nullptr,
                          dbio ? 4 : 0);
}

JNIEXPORT void JNICALL Java_com_tolvo_tran_api_TranApiAdapter_TranSqlId(JNIEnv* env, jobject, jlong tid,
                                                                        jstring sql_id) {
    if (!traced()) return;
    const FreeText id(env, sql_id);
    (void)TRAN_SQL_ID(native_tid(tid), id.get(), -1);
}

JNIEXPORT void JNICALL Java_com_tolvo_tran_api_TranApiAdapter_TranSqlStmt(JNIEnv* env, jobject, jlong tid, jint mode,
                                                                          jint sql_no, jlong start, jlong end,
                                                                          jstring sql_text) {
    if (!traced()) return;
    const SqlTime start_tm{start}, end_tm{end};
    const FreeText text(env, sql_text);
    (void)TRAN_SQL_STMT(native_tid(tid), mode, nullptr, 0, nullptr, 0, sql_no, &start_tm, &end_tm, text.get(), -1);
}

}  // extern "C"

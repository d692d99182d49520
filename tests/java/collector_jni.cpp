// The collector of the JVM tests, as native methods of
// com.tolvo.tran.test.TranApiAdapterTest: a kit session under the JVM's own
// pid keys (removed at exit, on SIGINT and SIGTERM, by remove(), and by the
// ipc_clean fixture after a crash), its switches, and its records as byte[].
#include <jni.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "kit/session.h"

#define VARNIX_TEST_METHOD(result, name) \
    JNIEXPORT result JNICALL Java_com_tolvo_tran_test_TranApiAdapterTest_##name

namespace {

varnix::kit::Session* session = nullptr;

TRAN_LOGF_QUE_INFO* que_info() { return session ? session->collector().que_info() : nullptr; }

}  // namespace

extern "C" {

VARNIX_TEST_METHOD(jint, create)(JNIEnv*, jclass, jint idle_thread_release) {
    varnix::kit::AgentConfig conf{};
    conf.idle_thread_release = idle_thread_release;
    session = varnix::kit::Session::start("varnix-jvm", conf);
    return session ? 0 : -1;
}

VARNIX_TEST_METHOD(void, remove)(JNIEnv*, jclass) {
    if (session) session->remove();
}

VARNIX_TEST_METHOD(jstring, home)(JNIEnv* env, jclass) {
    return env->NewStringUTF(session ? session->home().c_str() : "");
}

VARNIX_TEST_METHOD(void, switches)(JNIEnv*, jclass, jint que_mask, jboolean capture) {
    if (TRAN_LOGF_QUE_INFO* q = que_info()) {
        q->que_mask = static_cast<uint32_t>(que_mask);
        q->tong_log_flag = capture ? '1' : '0';
    }
}

VARNIX_TEST_METHOD(jbyteArray, receive)(JNIEnv* env, jclass) {
    TRAN_LOG_MSG m;
    if (!session || session->collector().receive(m) < 0) return nullptr;
    uint32_t len;
    std::memcpy(&len, m.text, sizeof len);
    const jsize n = static_cast<jsize>(std::min<size_t>(len, sizeof m.text - sizeof len));
    jbyteArray body = env->NewByteArray(n);
    if (body) env->SetByteArrayRegion(body, 0, n, reinterpret_cast<const jbyte*>(m.text + sizeof len));
    return body;
}

VARNIX_TEST_METHOD(jlong, refused)(JNIEnv*, jclass) {
    jlong sum = 0;
    if (const TRAN_LOGF_QUE_INFO* q = que_info())
        for (const uint32_t& c : q->msgq_fail_cnt) sum += __atomic_load_n(&c, __ATOMIC_RELAXED);
    return sum;
}

VARNIX_TEST_METHOD(jint, pidx)(JNIEnv*, jclass, jlong tid) {
    const PTRC_HASH_TBL* t = session ? session->collector().ptrc() : nullptr;
    for (uint32_t i = 0; t && i < VARNIX_TBL_ENTRIES; ++i) {
        const PTRC_HASH& e = t->entry[i];
        if (e.pid == getpid() && e.tid == static_cast<uint64_t>(tid) && e.ptrc_state == VARNIX_PTRC_REGISTERED)
            return static_cast<jint>(i);
    }
    return -1;
}

}  // extern "C"

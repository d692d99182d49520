// The collector of the JVM tests, as native methods of
// com.tolvo.tran.test.Collector: a kit session under the JVM's own pid keys
// (removed at exit, on SIGINT and SIGTERM, by remove(), and by the
// ipc_clean fixture after a crash), its switches, and its records as byte[].
#include <jni.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "collector/kit.h"
#include "collector/session.h"

namespace {

varnix::kit::Session* session = nullptr;

TRAN_LOGF_QUE_INFO* que_info() { return session ? session->collector().que_info() : nullptr; }

}  // namespace

extern "C" {

JNIEXPORT jint JNICALL Java_com_tolvo_tran_test_Collector_create(JNIEnv*, jclass, jint idle_thread_release) {
    varnix::kit::AgentConfig conf{};
    conf.idle_thread_release = idle_thread_release;
    session = varnix::kit::Session::start("varnix-jvm", conf);
    return session ? 0 : -1;
}

JNIEXPORT void JNICALL Java_com_tolvo_tran_test_Collector_remove(JNIEnv*, jclass) {
    if (session) session->remove();
}

JNIEXPORT jstring JNICALL Java_com_tolvo_tran_test_Collector_home(JNIEnv* env, jclass) {
    return env->NewStringUTF(session ? session->home().c_str() : "");
}

JNIEXPORT void JNICALL Java_com_tolvo_tran_test_Collector_switches(JNIEnv*, jclass, jint que_mask, jboolean capture) {
    if (TRAN_LOGF_QUE_INFO* q = que_info()) {
        q->que_mask = static_cast<uint32_t>(que_mask);
        q->tong_log_flag = capture ? '1' : '0';
    }
}

// The body of one waiting record, as long as its length word says; null
// when no queue holds one.
JNIEXPORT jbyteArray JNICALL Java_com_tolvo_tran_test_Collector_receive(JNIEnv* env, jclass) {
    TRAN_LOG_MSG m;
    if (!session || session->collector().receive(m) < 0) return nullptr;
    uint32_t len;
    std::memcpy(&len, m.text, sizeof len);
    const jsize n = static_cast<jsize>(std::min<size_t>(len, sizeof m.text - sizeof len));
    jbyteArray body = env->NewByteArray(n);
    if (body) env->SetByteArrayRegion(body, 0, n, reinterpret_cast<const jbyte*>(m.text + sizeof len));
    return body;
}

JNIEXPORT jint JNICALL Java_com_tolvo_tran_test_Collector_drain(JNIEnv*, jclass) {
    return session ? session->collector().drain() : 0;
}

// Records the queues refused, summed over the queues.
JNIEXPORT jlong JNICALL Java_com_tolvo_tran_test_Collector_refused(JNIEnv*, jclass) {
    jlong sum = 0;
    if (const TRAN_LOGF_QUE_INFO* q = que_info())
        for (const uint32_t& c : q->msgq_fail_cnt) sum += __atomic_load_n(&c, __ATOMIC_RELAXED);
    return sum;
}

// The process-thread table entry registered for a thread id of this
// process, or -1.
JNIEXPORT jint JNICALL Java_com_tolvo_tran_test_Collector_pidx(JNIEnv*, jclass, jlong tid) {
    const PTRC_HASH_TBL* t = session ? session->collector().ptrc() : nullptr;
    for (uint32_t i = 0; t && i < VARNIX_TBL_ENTRIES; ++i) {
        const PTRC_HASH& e = t->entry[i];
        if (e.pid == getpid() && e.tid == static_cast<uint64_t>(tid) && e.ptrc_state == VARNIX_PTRC_REGISTERED)
            return static_cast<jint>(i);
    }
    return -1;
}

JNIEXPORT jstring JNICALL Java_com_tolvo_tran_test_Collector_hostName(JNIEnv* env, jclass) {
    char name[65] = {};
    (void)gethostname(name, sizeof name - 1);
    return env->NewStringUTF(name);
}

}  // extern "C"

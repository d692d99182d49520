// The conversions of the binding and the methods that do not trace: Init,
// Done, TranLibV and TranSetTime.
//
// class_String and mid_getBytes are filled on first need without a lock:
// threads racing there store equivalent values, at worst leaving one extra
// global reference, which is never deleted.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>

#include "api/notice.h"
#include "core/copy_prefix.h"
#include "core/entry_gate.h"
#include "core/gvar.h"
#include "core/log_printf.h"
#include "core/status.h"
#include "jni/tran_jni.h"
#include "start/start_stop.h"
#include "varnix.h"

namespace varnix::jni {
namespace {

std::atomic<jclass> class_String{nullptr};
std::atomic<jmethodID> mid_getBytes{nullptr};

jmethodID get_bytes_method(JNIEnv* env) {
    if (jmethodID mid = mid_getBytes.load(std::memory_order_acquire)) return mid;
    jclass cls = class_String.load(std::memory_order_acquire);
    if (!cls) {
        jclass local = env->FindClass("java/lang/String");
        if (!local) {
            (void)cleared(env);
            return nullptr;
        }
        cls = static_cast<jclass>(env->NewGlobalRef(local));
        env->DeleteLocalRef(local);
        if (!cls) {
            (void)cleared(env);
            return nullptr;
        }
        class_String.store(cls, std::memory_order_release);
    }
    jmethodID mid = env->GetMethodID(cls, "getBytes", "()[B");
    if (!mid) {
        (void)cleared(env);
        return nullptr;
    }
    mid_getBytes.store(mid, std::memory_order_release);
    return mid;
}

// The start notice of a container: the container is named when the process
// is a Java launcher and a name was given, else the process.
void announce_container(char (&text)[256]) {
    if (std::strncmp(gvar.proc_nm, "java", 4) == 0 && gvar.cont_nm[0] != '\0')
        std::snprintf(text, sizeof text, "거래추적 대상 WAS컨테이너(%s)가 기동되었습니다.", gvar.cont_nm);
    else
        std::snprintf(text, sizeof text, "거래추적 대상 프로세스(%s)가 기동되었습니다.", gvar.proc_nm);
    Notice n;
    n.code = {"1508", -1};
    n.msg_text = {text, -1};
    int rc;
    {
        const EntryGate gate;
        rc = tran_event(0, n);
    }
    log_printf(">> 프로세스 기동 이벤트 생성 ret : %d, 내용 : %s ", rc, text);
}

}  // namespace

bool traced() { return gvar.init_mark.load(std::memory_order_acquire) == kInitMarkReady; }

bool cleared(JNIEnv* env) {
    if (!env->ExceptionCheck()) return false;
    env->ExceptionClear();
    return true;
}

void JavaChars::take(JNIEnv* env, jstring s) {
    release();
    if (!s) return;
    const char* chars = env->GetStringUTFChars(s, nullptr);
    if (!chars) {
        (void)cleared(env);
        return;
    }
    env_ = env;
    s_ = s;
    chars_ = chars;
    len_ = env->GetStringLength(s);
}

void JavaChars::release() {
    if (chars_) env_->ReleaseStringUTFChars(s_, chars_);
    chars_ = nullptr;
    len_ = 0;
}

FreeText::FreeText(JNIEnv* env, jstring s) {
    if (!s) return;
    jbyteArray bytes = javaGetBytes(env, s);
    if (!bytes) return;
    text_ = jbyteArray2cstr(env, bytes);
    env->DeleteLocalRef(bytes);
}

char* jbyteArray2cstr(JNIEnv* env, jbyteArray array) {
    const jsize n = env->GetArrayLength(array);
    jbyte* elems = env->GetByteArrayElements(array, nullptr);
    if (!elems) {
        (void)cleared(env);
        return nullptr;
    }
    char* copy = static_cast<char*>(std::malloc(static_cast<size_t>(n) + 1));
    if (copy) {
        std::strncpy(copy, reinterpret_cast<const char*>(elems), static_cast<size_t>(n));
        copy[n] = '\0';
    }
    env->ReleaseByteArrayElements(array, elems, JNI_ABORT);
    return copy;
}

jbyteArray javaGetBytes(JNIEnv* env, jstring s) {
    jmethodID mid = get_bytes_method(env);
    if (!mid) return nullptr;
    jobject bytes = env->CallObjectMethod(s, mid);
    if (cleared(env)) {
        if (bytes) env->DeleteLocalRef(bytes);
        return nullptr;
    }
    return static_cast<jbyteArray>(bytes);
}

jsize copy_block(JNIEnv* env, jbyteArray array, char* out, jsize size) {
    const jsize n = env->GetArrayLength(array);
    env->GetByteArrayRegion(array, 0, std::min(n, size - 1), reinterpret_cast<jbyte*>(out));
    return cleared(env) ? -1 : n;
}

}  // namespace varnix::jni

using namespace varnix;
using namespace varnix::jni;

extern "C" {

JNIEXPORT jint JNICALL Java_com_tolvo_tran_api_TranApiAdapter_Init(JNIEnv* env, jobject, jstring name) {
    {
        const JavaChars chars(env, name);
        if (chars.get()) {
            std::memset(init_cont_nm, 0, sizeof init_cont_nm);
            copy_prefix(init_cont_nm, chars.get(), 30);
        }
    }
    jni_init_flag = 1;
    const int32_t rc = TRAN_INIT();
    if (rc == kOk) {
        char text[256];
        announce_container(text);
    } else {
        log_printf("<!> TRAN_INIT실패..Lib버전 [%s]", kVersionBanner);
    }
    return rc;
}

JNIEXPORT void JNICALL Java_com_tolvo_tran_api_TranApiAdapter_Done(JNIEnv*, jobject) { (void)TRAN_DONE(); }

JNIEXPORT jstring JNICALL Java_com_tolvo_tran_api_TranApiAdapter_TranLibV(JNIEnv* env, jobject) {
    jstring banner = env->NewStringUTF(kVersionBanner);
    (void)cleared(env);
    return banner;
}

JNIEXPORT void JNICALL Java_com_tolvo_tran_api_TranApiAdapter_TranSetTime(JNIEnv*, jobject, jlong tid) {
    (void)TRAN_SET_TIME(native_tid(tid));
}

}  // extern "C"

// TranStart, TranEnd and TranError: a thread id and 29 Strings onto the
// service start, end and error of a standard service.  Java parameter k
// (2..30) stands for the native pair 2k - 2, 2k - 1; the sub-class code (3)
// and the process id, date and time (6 to 8) are never taken from Java.
#include <array>
#include <cstddef>

#include "api/service.h"
#include "core/entry_gate.h"
#include "jni/tran_jni.h"

namespace varnix::jni {
namespace {

constexpr size_t kStrings = 29;
constexpr size_t kTelegramColumns = 22;
// Index in the 29 Strings (Java parameter - 2).
constexpr size_t kClsCd = 0, kGid = 2, kSvcId = 3, kFirstColumn = 7;
static_assert(kFirstColumn + kTelegramColumns == kStrings);

using ServiceFn = int (*)(const ServiceKind&, const ServiceArgs&);

template <ServiceFn fn>
void service_method(JNIEnv* env, jlong tid, const std::array<jstring, kStrings>& s) {
    if (!traced()) return;
    JavaChars cls(env, s[kClsCd]), gid(env, s[kGid]), svc(env, s[kSvcId]);
    std::array<JavaChars, kTelegramColumns> columns;
    std::array<Text, kTelegramColumns> tail;
    for (size_t i = 0; i < kTelegramColumns; ++i) {
        columns[i].take(env, s[kFirstColumn + i]);
        tail[i] = columns[i].text();
    }
    const Text none{nullptr, 0};
    const EntryGate gate;
    (void)fn(kStandardService,
             ServiceArgs{native_tid(tid), cls.text(), none, gid.text(), svc.text(), none, none, none, tail});
}

}  // namespace
}  // namespace varnix::jni

#define VARNIX_J29_PARAMS                                                                                           \
    jstring p2, jstring p3, jstring p4, jstring p5, jstring p6, jstring p7, jstring p8, jstring p9, jstring p10,    \
        jstring p11, jstring p12, jstring p13, jstring p14, jstring p15, jstring p16, jstring p17, jstring p18,     \
        jstring p19, jstring p20, jstring p21, jstring p22, jstring p23, jstring p24, jstring p25, jstring p26,     \
        jstring p27, jstring p28, jstring p29, jstring p30
#define VARNIX_J29_ARGS                                                                                             \
    p2, p3, p4, p5, p6, p7, p8, p9, p10, p11, p12, p13, p14, p15, p16, p17, p18, p19, p20, p21, p22, p23, p24, p25, \
        p26, p27, p28, p29, p30
#define VARNIX_SERVICE_METHOD(name, fn)                                                                  \
    JNIEXPORT void JNICALL Java_com_tolvo_tran_api_TranApiAdapter_##name(JNIEnv* env, jobject, jlong tid, \
                                                                         VARNIX_J29_PARAMS) {            \
        varnix::jni::service_method<varnix::fn>(env, tid, {VARNIX_J29_ARGS});                           \
    }

extern "C" {

VARNIX_SERVICE_METHOD(TranStart, service_start)
VARNIX_SERVICE_METHOD(TranEnd, service_end)
VARNIX_SERVICE_METHOD(TranError, service_error)

}  // extern "C"

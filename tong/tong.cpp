// Full-message capture.
//
// The record is built on the capturing thread, outside any lock; tong_lock is
// held only around the put into the deferred queue and the failure count, so
// the queue's producers are serialized and a full queue costs one short
// critical section, never a wait.  From a successful put on, the buffer is
// the writer's; a put that fails frees it here.
#include "tong/tong.h"

#include <pthread.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "api/std_tmsg.h"
#include "core/clock.h"
#include "core/entry_gate.h"
#include "core/gvar.h"
#include "core/log_printf.h"
#include "core/mutex.h"
#include "core/status.h"
#include "core/text_out.h"
#include "record/record.h"
#include "tong/deffered_que.h"
#include "tong/tong_slot.h"
#include "varnix.h"

namespace varnix {
namespace {

constexpr int32_t kTongExtra = kTongHeaderLen + 1;  // header and line feed
constexpr int kTimeOff = 30, kTimeLen = 16;
constexpr int kHostOff = 46, kHostLen = 64;
constexpr int kFlagOff = 110;
constexpr int kLenOff = 111, kLenLen = 6;
constexpr int kFirstApiType = kTranStartApi;
constexpr int kReportEvery = 100;

pthread_mutex_t tong_lock = PTHREAD_MUTEX_INITIALIZER;

// The first `len` characters of the number as a zero-padded `width` digits.
void put_number(char* out, int len, int64_t v, int width) {
    char buf[kNumberMax + 1];
    std::memcpy(out, buf, static_cast<size_t>(std::min(len, write_zero_padded(buf, v, width))));
}

void put_gid(char* rec, int32_t n, int64_t gid_offset) {
    const Text gid = TmsgView(rec + kTongHeaderLen, n).span(gid_offset, kTongGidLen);
    std::memcpy(rec, gid.p, static_cast<size_t>(gid.len));
    std::memset(rec + gid.len, ' ', static_cast<size_t>(kTongGidLen - gid.len));
}

// "%010ld%06ld" of now, cut to its field.
void put_time(char* out) {
    const timeval tv = clock_now();
    char buf[2 * kNumberMax + 2];
    int len = write_zero_padded(buf, tv.tv_sec, 10);
    len += write_zero_padded(buf + len, tv.tv_usec, 6);
    std::memcpy(out, buf, static_cast<size_t>(std::min(len, kTimeLen)));
}

void put_host(char* out) {
    const size_t len = strnlen(gvar.host_name, kHostLen);
    std::memcpy(out, gvar.host_name, len);
    std::memset(out + len, 0, kHostLen - len);
}

const char* api_name(int api_type) {
    const int i = api_type - kFirstApiType;
    return i >= 0 && i < static_cast<int>(std::size(api_type_nm)) ? api_type_nm[i] : "UNKNOWN_API";
}

// The telegram is shown up to its first NUL, never beyond its length.
void report_short(const char* tmsg, int32_t len, int api_type) {
    const int shown = static_cast<int>(strnlen(tmsg, static_cast<size_t>(len)));
    log_printf(">> %s [%.*s] 통전문 길이 체크 오류(최소 길이(%d)보다 작음, %d byte) : 내용|%.*s|", api_name(api_type),
               shown == 12 ? 9 : shown, tmsg, kTongMinLen, len, shown, tmsg);
}

}  // namespace

char get_sf_flag(int api_type) {
    switch (api_type) {
        case kTranStartApi:
        case kTranClhStartApi:
        case kTranPtStartApi:
        case kTranWebStartApi:
            return 'S';
        case kTranEndApi:
        case kTranClhEndApi:
        case kTranPtEndApi:
        case kTranWebEndApi:
            return 'F';
        default:
            return 'U';
    }
}

bool tong_capture_on() {
    // Sequentially consistent: read after the entry gate counted the caller,
    // so the control block stays attached while it is read.
    if (gvar.init_mark.load() != kInitMarkReady) return false;
    return gvar.tong_log_flag && shm_load(gvar.tong_log_flag) == '1';
}

char* new_tong_record(int32_t n) {
    if (n < 0 || n > INT32_MAX - kTongExtra) return nullptr;
    return static_cast<char*>(std::malloc(static_cast<size_t>(n) + kTongExtra));
}

void finish_tong_record(char* rec, int32_t n, int api_type, int64_t gid_offset) {
    put_gid(rec, n, gid_offset);
    put_time(rec + kTimeOff);
    put_host(rec + kHostOff);
    rec[kFlagOff] = get_sf_flag(api_type);
    put_number(rec + kLenOff, kLenLen, n, kLenLen);
    rec[kTongHeaderLen + n] = '\n';
}

void put_tong_record(char* rec, int32_t n, long tid, TongCaller caller) {
    const TongSlot slot{n + kTongExtra, rec};
    MutexGuard guard(tong_lock);
    if (guard.owns() && put_deffered_que(&slot, sizeof slot, kDeferredKindTong) == 1) return;
    std::free(rec);
    if (!guard.owns()) return;  // the count is tong_lock's
    // Atomic: the writer resets the count without the lock.
    const int32_t count = __atomic_add_fetch(&nfailcount, 1, __ATOMIC_RELAXED);
    if (count != 1 && count % kReportEvery != 0) return;
    log_printf(caller == TongCaller::kJava ? "<!> put_deffered fail.(cnt %d) [tid:%ld]."
                                           : "<!> put_deffered_que fail.(cnt %d) [tid:%ld].",
               count, tid);
}

int reset_tong_que() {
    MutexGuard guard(tong_lock);
    if (!guard.owns()) return 0;
    // No writer runs, so this thread is the only consumer.
    while (const DeferredSlot* slot = get_deffered_que()) {
        if (slot->kind != kDeferredKindTong) continue;
        TongSlot rec;
        std::memcpy(&rec, slot->payload, sizeof rec);
        std::free(rec.buf);
    }
    return create_deffered_que(0);
}

void reset_tong_after_fork() { (void)pthread_mutex_init(&tong_lock, nullptr); }

}  // namespace varnix

using namespace varnix;

extern "C" {

int32_t save_tong_log4c(int32_t tid, const char* tmsg, int32_t len, int8_t api_type) {
    const varnix::EntryGate gate;
    if (!tmsg || !tong_capture_on()) return kOk;
    const int32_t n = TmsgView(tmsg, len).size();
    if (n < kTongMinLen) {
        report_short(tmsg, n, api_type);
        return VARNIX_RC_SHORT_TMSG;
    }
    char* rec = new_tong_record(n);
    if (!rec) return kOk;  // dropped: the telegram is not worth failing the service for
    std::memcpy(rec + kTongHeaderLen, tmsg, static_cast<size_t>(n));
    finish_tong_record(rec, n, api_type, table_field(_GLBL_ID).off);
    put_tong_record(rec, n, tid, TongCaller::kNative);
    return kOk;
}

}  // extern "C"

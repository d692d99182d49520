// Tracing in the test process against the binary's collector, and readers of
// the records it receives.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "context/hash.h"
#include "context/mtr_cxt.h"
#include "core/gvar.h"
#include "support/test_ipc.h"
#include "varnix.h"

namespace varnix::test {

// Stops tracing and waits for the writer thread, which outlives TRAN_DONE.
inline void stop_tracing() {
    TRAN_DONE();
    th_join_thread();
}

// TRAN_INIT with its banner taken off standard output (into `banner` when given).
inline int init_quietly(std::string* banner = nullptr) {
    testing::internal::CaptureStdout();
    const int rc = TRAN_INIT();
    std::string out = testing::internal::GetCapturedStdout();
    if (banner) *banner = std::move(out);
    return rc;
}

// Starts tracing afresh (TRAN_DONE, TRAN_INIT) with the default
// configuration; the start-up records are drained.  The banner goes to
// `banner` when given.
inline int start_tracing(std::string* banner = nullptr) {
    TestIpc& ipc = TestIpc::get();
    if (!ipc.ok()) return -1;
    stop_tracing();
    ipc.reset();
    const int rc = init_quietly(banner);
    ipc.collector().drain();
    return rc;
}

// A test with tracing started and the calling thread's context and
// process-thread entry at hand; tracing stops after it.
class TracedThread : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(start_tracing(), 0);
        ASSERT_EQ(get_mtr_cxt_var(-1, &cxt_), 0);
        e_ = cxt_->ptrc;
        ASSERT_NE(e_, nullptr);
    }
    void TearDown() override { stop_tracing(); }

    MTR_CXT_VAR* cxt_ = nullptr;
    PTRC_HASH* e_ = nullptr;
};

// A traced thread whose records all go to one queue, so they arrive in the
// order sent; every record must have been read when the test ends.
class OrderedRecords : public TracedThread {
protected:
    void SetUp() override {
        TracedThread::SetUp();
        TestIpc::get().que_info().que_mask = 0;
    }
    void TearDown() override {
        EXPECT_EQ(TestIpc::get().collector().drain(), 0) << "records nobody looked at";
        TracedThread::TearDown();
    }
};

inline std::string_view body_field(const TRAN_LOG_MSG& m, int offset, int width) {
    return {m.text + sizeof(uint32_t) + offset, static_cast<size_t>(width)};
}

inline uint32_t body_len(const TRAN_LOG_MSG& m) {
    uint32_t n;
    std::memcpy(&n, m.text, sizeof n);
    return n;
}

// The whole body, as long as the record says it is (at most what it holds).
inline std::string_view body_of(const TRAN_LOG_MSG& m) {
    return body_field(m, 0, static_cast<int>(std::min<size_t>(body_len(m), sizeof m.text - sizeof(uint32_t))));
}

// `s` cut or space-padded to `width`.
inline std::string padded(std::string_view s, size_t width) {
    std::string r(s.substr(0, width));
    r.resize(width, ' ');
    return r;
}

// printf into a string: expected diagnostic lines and record fields.
__attribute__((format(printf, 1, 2))) inline std::string fmt(const char* format, ...) {
    char buf[1024];
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(buf, sizeof buf, format, ap);
    va_end(ap);
    return buf;
}

// The record an entry says it sent: its result is the queue.
inline TRAN_LOG_MSG received(int rc) {
    TRAN_LOG_MSG m{};
    EXPECT_TRUE(rc >= 0 && rc < 4) << "result " << rc;
    if (rc >= 0) {
        EXPECT_EQ(TestIpc::get().collector().receive(m, rc), rc) << "no record on queue " << rc;
    }
    return m;
}

// The fields of the 197-byte record header a test gives; the process name,
// host and thread numbers are the sender's own.  An empty pid is this
// process's; an empty date and time (22 bytes with their blanks) is the
// record's own once it proves to be digits.
struct Header {
    char type;
    std::string_view cls, dtl, gid, svc, pid, date_time;
};

inline std::string header_of(const TRAN_LOG_MSG& m, const MTR_CXT_VAR& cxt, const Header& h) {
    std::string date_time(h.date_time);
    if (date_time.empty()) {
        date_time = body_field(m, 175, 22);
        EXPECT_EQ(date_time.find_first_not_of("0123456789"), 8u) << date_time;
        EXPECT_EQ(date_time.find_first_not_of("0123456789", 9), 21u) << date_time;
    }
    const std::string pid = h.pid.empty() ? fmt("%08d", static_cast<int>(getpid())) : padded(h.pid, 8);
    return std::string(1, h.type) + " " + padded(h.cls, 2) + " " + padded(h.dtl, 1) + " " + padded(h.gid, 32) + " " +
           padded(gvar.proc_nm, 15) + " " + padded(h.svc, 16) + " " + padded(gvar.host_name, 64) + " " + pid + " " +
           fmt("%015lu %05d %05u ", static_cast<unsigned long>(cxt.tid % 1'000'000'000'000'000ULL), cxt.idx,
               cxt.ptrc->pidx) +
           date_time;
}

// The queue a 32-byte GID field picks under the default configuration.
inline int queue_of_gid(std::string_view gid) {
    std::string field = padded(gid, 32);
    const kit::AgentConfig conf = TestIpc::get().default_config();
    return static_cast<int>(get_hash_code(field.data() + conf.gid_rng_pos, conf.gid_rng_siz) &
                            static_cast<uint32_t>(conf.que_cnt - 1));
}

// Diagnostic log messages appended since the last call, without the
// "(pid) MM-DD HH:MM:SS  " prefix.
class LogTail {
public:
    LogTail() : seen_(TestIpc::get().read_log().size()) {}
    std::vector<std::string> take() {
        std::string text = TestIpc::get().read_log();
        std::vector<std::string> messages = log_messages(text, seen_ < text.size() ? seen_ : text.size());
        seen_ = text.size();
        return messages;
    }

private:
    size_t seen_;
};

}  // namespace varnix::test

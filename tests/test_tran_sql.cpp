// SQL statements of a DBIO call: slots, repeat merging, text records and pieces, the SQL identifier.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "support/calls.h"

namespace varnix::test {
namespace {

constexpr int kText = 197;  // body offset of the piece header and piece
constexpr int kField = 350;

int32_t report(const char* text, int sql_no, timeval start, timeval end, const char* date = nullptr,
               const char* time = nullptr) {
    return TRAN_SQL_STMT(-1, 0, date, -1, time, -1, sql_no, &start, &end, text, -1);
}

int32_t close_call() { return TRAN_SQL_STMT(-1, 1, nullptr, 0, nullptr, 0, 0, nullptr, nullptr, nullptr, 0); }

std::string text_of(const std::string& unit, size_t size) {
    std::string s;
    while (s.size() + unit.size() <= size) s += unit;
    s.resize(size, 'x');
    return s;
}

// `n` bytes of `fill` right before an unreadable page, so that a reader looking
// past them for a terminator faults; `text` is null if the pages failed.
struct Unterminated {
    Unterminated(size_t n, char fill) : size((n / page + 2) * page) {
        void* m = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        base = m == MAP_FAILED ? nullptr : static_cast<char*>(m);
        if (base && mprotect(base + size - page, page, PROT_NONE) == 0)
            text = static_cast<char*>(std::memset(base + size - page - n, fill, n));
    }
    ~Unterminated() { if (base) munmap(base, size); }
    Unterminated(const Unterminated&) = delete;
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE)), size;
    char *base, *text = nullptr;
};

class TranSql : public TracedThread {
protected:
    void TearDown() override {
        TracedThread::TearDown();
        collector().drain();
    }
    kit::Collector& collector() { return TestIpc::get().collector(); }
    // A service open and a DBIO call started in it, with the SQL limit given.
    void enter(const char* func = "DBIO_select_emp", int64_t sql_limit = 0) {
        ASSERT_EQ(open_service(*cxt_, gid_, "SVC-SQL-0001"), 0);
        ASSERT_EQ(call_start(func), 0);
        e_->sql_trc_limit = sql_limit;
    }

    // The `count` records that a close returning `rc` sent, and no more.
    std::vector<TRAN_LOG_MSG> received(int rc, int count) {
        std::vector<TRAN_LOG_MSG> out(static_cast<size_t>(count));
        EXPECT_EQ(rc, queue_of_gid(gid_));
        for (TRAN_LOG_MSG& m : out) EXPECT_EQ(collector().receive(m, queue_of_gid(gid_)), queue_of_gid(gid_));
        EXPECT_EQ(collector().drain(), 0) << "more records than " << count;
        return out;
    }

    // The pieces of the only kept statement sent by a close, behind their headers (the texts hold no spaces).
    std::vector<std::string> pieces(const std::string& first_head, int count) {
        std::vector<std::string> out;
        for (const TRAN_LOG_MSG& m : received(close_call(), count)) {
            const std::string head = out.empty() ? first_head : "1,1," + std::to_string(out.size() + 1) + ",";
            std::string f(body_field(m, kText, kField + 1));
            EXPECT_EQ(body_len(m), 548u);
            EXPECT_EQ(f.substr(0, head.size()), head);
            f.erase(f.find_last_not_of(' ') + 1);
            out.push_back(f.substr(std::min(head.size(), f.size())));
        }
        return out;
    }

    const std::string gid_ = "GID-SQL-0000000000000000000001";
};

TEST_F(TranSql, RecordBytesComeFromTheSecondaryBufferAtClose) {
    enter("DBIO_select_emp(a,b)");
    const TRAN_LOG_MSG primary = cxt_->log_rec;
    EXPECT_EQ(report("SELECT 1 FROM DUAL", 7, {100, 250000}, {101, 750000}, "20260102", "030405123456"), 0);
    // The header is written with the first statement; a later date and time do not replace it.
    EXPECT_EQ(report("SELECT 2 FROM DUAL", 8, {102, 0}, {102, 1}, "19990101", "235959000000"), 0);
    const std::vector<TRAN_LOG_MSG> recs = received(close_call(), 2);
    std::string head = header_of(recs[0], *cxt_, {'Q', "", "", gid_, "SVC-SQL-0001", "", "20260102 030405123456 "});
    head.replace(40, 15, 15, ' ');  // the process name is only in the primary body
    EXPECT_EQ(recs[0].mtype, 1);
    const std::string text = padded("1,2,1,1,1.500000,7,DBIO_select_emp(a),SELECT 1 FROM DUAL", kField);
    EXPECT_EQ(body_field(recs[0], 0, 780), head + text + std::string(233, ' '));
    EXPECT_EQ(body_field(recs[1], 175, kField + 23),
              "20260102 030405123456 " + padded("2,2,1,1,0.000001,8,DBIO_select_emp(a),SELECT 2 FROM DUAL", kField) +
                  " ");
    EXPECT_EQ(std::memcmp(&primary, &cxt_->log_rec, sizeof primary), 0);
    // The slot as the collector reads it; the call finish clears the count.
    const SQL_SLOT& s = e_->sql_slot[0];
    EXPECT_EQ(fmt("%u %u %ld.%06ld %ld.%06ld %u %d %d", s.sql_len, s.sql_no, s.start_tv.tv_sec, s.start_tv.tv_usec,
                  s.end_tv.tv_sec, s.end_tv.tv_usec, s.rep_cnt, s.func_nm_end, e_->sql_rec_cnt),
              "18 7 100.250000 101.750000 1 0 2");

    e_->sql_rec_cnt = 0;  // the next DBIO call writes a new header with its first statement
    EXPECT_EQ(report("SELECT 3", 9, {5, 0}, {5, 2}, "20270303", nullptr), 0);
    const std::string r(body_field(received(close_call(), 1)[0], 175, kText + 40 - 175));
    EXPECT_EQ(r.substr(0, 9) + r.substr(21), "20270303  " + padded("1,1,1,1,0.000002,9,DBIO_select_emp(a),SELECT 3", 40));
    EXPECT_EQ(r.substr(9, 12).find_first_not_of("0123456789"), std::string::npos);
}

// Statements faster than the limit (5 us here) are kept but not sent.
TEST_F(TranSql, RepeatsMergeAtMostFiveStatementsAreKeptAndSlowOnesSent) {
    enter("DBIO_fn", 5);
    // The same number and length merge (the text is not compared); another takes a new slot, and only the last
    // slot is compared; a sixth is refused, a repeat still merges.
    const std::tuple<const char*, int, long, long, int> calls[] = {
        {"SELECT 1", 1, 10, 100, 0},     {"SELECT 1", 1, 12, 300, 0}, {"SELECT 9", 1, 13, 1000000, 0},
        {"SELECT 1", 2, 20, 1000000, 0}, {"SELECT 10", 2, 22, 5, 0},  {"SELECT 1", 1, 23, 1, 0},
        {"SELECT 5", 5, 24, 1, 0},       {"SELECT 6", 6, 25, 1, VARNIX_RC_SQL_LIMIT}, {"SELECT 5", 5, 26, 7, 0}};
    for (const auto& [text, no, sec, us, rc] : calls)
        EXPECT_EQ(report(text, no, {sec, 0}, {sec + us / 1000000, us % 1000000}), rc) << text;
    EXPECT_EQ(e_->sql_rec_cnt, 5);

    const char* expected[] = {"1,5,1,2,2.000300,1,DBIO_fn,SELECT 1", "2,5,1,1,1.000000,2,DBIO_fn,SELECT 1",
                              "3,5,1,1,0.000005,2,DBIO_fn,SELECT 10", "5,5,1,2,2.000007,5,DBIO_fn,SELECT 5"};
    const std::vector<TRAN_LOG_MSG> recs = received(close_call(), 4);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(body_field(recs[i], kText, kField), padded(expected[i], kField)) << i;
}

// The SQL identifier needs no service or call; statements need an open DBIO call.
TEST_F(TranSql, SqlIdIsStoredAnywhereButStatementsOnlyInAnOpenDbioCall) {
    char* after = reinterpret_cast<char*>(e_) + offsetof(PTRC_HASH, sql_id) + sizeof e_->sql_id;
    *after = 'z';
    EXPECT_EQ(TRAN_SQL_ID(-1, "SQLID-0001", 3), 0);
    EXPECT_EQ(std::string_view(e_->sql_id, 201), padded("SQL", 201));  // the separator after it too
    EXPECT_EQ(TRAN_SQL_ID(-1, std::string(250, 'L').c_str(), -1), 0);
    EXPECT_EQ(std::string_view(e_->sql_id, 201), std::string(200, 'L') + " ");
    EXPECT_EQ(TRAN_SQL_ID(-1, nullptr, 5), 0);
    EXPECT_EQ(std::string_view(e_->sql_id, 200), std::string(200, ' '));
    Unterminated id(200, 'U');  // no terminator: only the field's width is read
    ASSERT_NE(id.text, nullptr);
    EXPECT_EQ(TRAN_SQL_ID(-1, id.text, -1), 0);
    EXPECT_EQ(std::string_view(e_->sql_id, 200), std::string(200, 'U'));
    EXPECT_EQ(report("S", 1, {1, 0}, {1, 1}), VARNIX_RC_SVC_DEPTH);
    enter();
    cxt_->service_depth = 11;
    EXPECT_EQ(report("S", 1, {1, 0}, {1, 1}), VARNIX_RC_SVC_DEPTH);
    cxt_->service_depth = 1, e_->trc_lvl = 0;
    EXPECT_EQ(close_call(), VARNIX_RC_CALL_DEPTH);
    e_->trc_lvl = 52;
    EXPECT_EQ(report("S", 1, {1, 0}, {1, 1}), VARNIX_RC_CALL_DEPTH);
    e_->trc_lvl = 2, e_->call_lvl[1].call_kind = 'C';  // only the innermost open level counts
    EXPECT_EQ(report("S", 1, {1, 0}, {1, 1}), VARNIX_RC_SQL_NO_DBIO);
    EXPECT_EQ(close_call(), VARNIX_RC_SQL_NO_DBIO);
    e_->call_lvl[0].call_kind = 'C', e_->call_lvl[1].call_kind = 'B';
    EXPECT_EQ(report("S", 1, {1, 0}, {1, 1}), 0);
    EXPECT_EQ(TRAN_SQL_STMT(-1, 2, nullptr, 0, nullptr, 0, 1, nullptr, nullptr, "S2", -1), 0);  // no such mode
    EXPECT_EQ(e_->sql_rec_cnt, 1);
    cxt_->log_bit = 3;  // the service has ended
    EXPECT_EQ(report("S", 2, {1, 0}, {1, 1}), VARNIX_RC_NO_SERVICE);
    cxt_->log_bit = 1;
    TestIpc::get().que_info().log_flag_set = get_log_flag_set("SEVBCIX");
    EXPECT_EQ(report("S", 2, {1, 0}, {1, 1}), VARNIX_RC_CLASS_OFF);
    EXPECT_EQ(close_call(), VARNIX_RC_CLASS_OFF);
    EXPECT_EQ(TRAN_SQL_ID(-1, "ID", -1), VARNIX_RC_CLASS_OFF);
    EXPECT_EQ(e_->sql_rec_cnt, 1);
    EXPECT_EQ(collector().drain(), 0);
}

TEST_F(TranSql, LongTextsAreSplitBetweenEucKrCharacters) {
    // EUC-KR syllables, trail bytes inside and outside the lead-byte range, between ASCII.
    const std::string text = text_of("\xb0\xa1\xb3\xaa\xb4\xd9x\xb6\xf3\xb8\xb6\xb9\xd9x\xbb\xe7\xbe\xc6\xc0\xdax"
                                     "\xc2\xf7\xc4\xab\xc5\xb8x\xc6\xc4\xc7\xcfx", 1000);
    enter("DBIO_euckr,with,commas");
    EXPECT_EQ(report(text.c_str(), 4, {1, 0}, {3, 5}), 0);
    std::vector<std::string> p = pieces("1,1,1,1,2.000005,4,DBIO_euckr),", 3);
    EXPECT_EQ(p[0] + p[1] + p[2], text);
    std::set<size_t> starts{text.size()};
    for (size_t i = 0; i < text.size(); i += static_cast<unsigned char>(text[i]) >= 0xA1 ? 2 : 1) starts.insert(i);
    size_t at = 0;
    bool moved = false;
    for (size_t i = 0; i < p.size(); ++i) {
        at += p[i].size();
        EXPECT_TRUE(starts.count(at)) << "piece " << i << " ends inside a character at " << at;
        moved |= i + 1 < p.size() && p[i].size() < kField - (i == 0 ? 31 : 6);
    }
    EXPECT_TRUE(moved);

    e_->sql_rec_cnt = 0;  // nothing but lead-range bytes: no boundary, the piece is cut at the room left
    LogTail log;
    EXPECT_EQ(report(std::string(400, '\xb0').c_str(), 1, {1, 0}, {1, 0}), 0);
    p = pieces("1,1,1,1,0.000000,1,DBIO_euckr),", 2);
    EXPECT_EQ(p[0].size(), 319u);
    EXPECT_EQ(p[0] + p[1], std::string(400, '\xb0'));
    EXPECT_EQ(log.take(), std::vector<std::string>{"<!> send_len(319) length error"});
}

TEST_F(TranSql, TextLengthsAtTheLimitAndBadArguments) {
    enter();
    // Cut at the slot's 8192 bytes, by the character rule of the pieces.
    const std::string ga_x = "x" + text_of("\xb0\xa1", 9000);  // an EUC-KR lead byte at 8191
    const std::pair<std::string, int> cases[] = {{std::string(8193, 'a'), 8192}, {ga_x, 8191}, {"x" + ga_x, 8192}};
    for (const auto& [text, kept] : cases) {
        e_->sql_rec_cnt = 0;
        EXPECT_EQ(TRAN_SQL_STMT(-1, 0, nullptr, 0, nullptr, 0, 1, nullptr, nullptr, text.c_str(), 3), 0);
        EXPECT_EQ(e_->sql_slot[0].sql_len, kept) << text.size();
        EXPECT_TRUE(std::string(e_->sql_slot[0].sql_text) == text.substr(0, static_cast<size_t>(kept)));
    }
    // An unterminated text is read no further than the slot holds, and cut there like a longer one.
    Unterminated full(8192, 'a');
    ASSERT_NE(full.text, nullptr);
    full.text[8191] = '\xb0', e_->sql_rec_cnt = 0;
    EXPECT_EQ(TRAN_SQL_STMT(-1, 0, nullptr, 0, nullptr, 0, 1, nullptr, nullptr, full.text, -1), 0);
    EXPECT_EQ(e_->sql_slot[0].sql_len, 8191);

    e_->sql_rec_cnt = 0;  // absent and empty texts are kept as empty statements, and send nothing
    EXPECT_EQ(report(nullptr, 1, {1, 0}, {2, 0}), 0);
    EXPECT_EQ(report("", 1, {3, 0}, {4, 0}), 0);
    EXPECT_EQ(e_->sql_slot[0].rep_cnt, 2u);
    EXPECT_EQ(close_call(), 0);

    // Microseconds with 9999, the number kept in 16 bits, absent times taken as now, date and time cut or padded.
    e_->sql_rec_cnt = 0;
    const int64_t us_start = 5'000'000'000, us_end = 5'000'250'000;
    EXPECT_EQ(TRAN_SQL_STMT(-1, 0, "2026", 3, "0102030405060708", -1, 9999, &us_start, &us_end, "U", -1), 0);
    EXPECT_EQ(e_->sql_slot[0].start_tv.tv_sec, 5000);
    EXPECT_EQ(TRAN_SQL_STMT(-1, 0, nullptr, 0, nullptr, 0, 70000, nullptr, nullptr, "V", -1), 0);
    EXPECT_EQ(e_->sql_slot[1].sql_no, 70000 & 0xFFFF);
    EXPECT_GT(e_->sql_slot[1].start_tv.tv_sec, 1'600'000'000);
    // Times at the ends of their range wrap around instead of overflowing.
    EXPECT_EQ(report("W", 3, {LONG_MAX, 0}, {LONG_MIN, 0}), 0);
    std::vector<TRAN_LOG_MSG> recs = received(close_call(), 3);
    EXPECT_EQ(body_field(recs[0], 175, 22), "202      010203040506 ");
    EXPECT_EQ(body_field(recs[0], kText, 30), padded("1,3,1,1,0.250000,9999,DBIO_sel", 30));
    EXPECT_EQ(body_field(recs[2], kText, 19), "3,3,1,1,1.000000,3,");
}

}  // namespace
}  // namespace varnix::test

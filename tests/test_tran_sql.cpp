// SQL statements of a DBIO call: the five slots, repeat merging, the SQL text
// records and their pieces, and the SQL identifier.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "api/tran_sql.h"
#include "core/gvar.h"
#include "support/calls.h"
#include "support/tracing.h"

namespace varnix::test {
namespace {

using Lines = std::vector<std::string>;

constexpr int kText = 197;  // body offset of the piece header and piece
constexpr int kField = 350;

timeval tv(long sec, long usec) { return timeval{sec, usec}; }

// Puts the thread where a service start and a DBIO call start leave it: one
// service open at depth 1 (start bit set, its GID and service id on the
// context's stack and mirrored in the entry), the service's SQL limit loaded
// into the entry, and one traced call level open whose kind is DBIO.
void enter_dbio(MTR_CXT_VAR& cxt, const std::string& gid, const char* func, int64_t sql_limit = 0) {
    cxt.service_depth = 1;
    cxt.log_bit = 1;
    SvcLevel& level = cxt.svc_stack[0];
    std::memcpy(level.gid, padded(gid, 32).data(), 32);
    std::memcpy(level.svc_id, "SVC-SQL-0001    ", 16);
    PTRC_HASH& e = *cxt.ptrc;
    e.service_depth = 1;
    std::memcpy(e.svc_stack[0].gid, level.gid, 32);
    std::memcpy(e.svc_stack[0].svc_id, level.svc_id, 16);
    e.sql_trc_limit = sql_limit;
    e.trc_lvl = 1;
    CALL_LVL& call = e.call_lvl[0];
    std::memset(&call, 0, sizeof call);
    call.call_kind = 'B';
    std::snprintf(call.func_nm, sizeof call.func_nm, "%s", func);
    e.sql_rec_cnt = 0;
}

int32_t report(const char* text, int sql_no, timeval start, timeval end, const char* date = nullptr,
               const char* time = nullptr) {
    return TRAN_SQL_STMT(-1, 0, date, -1, time, -1, sql_no, &start, &end, text, -1);
}

int32_t close_call() { return TRAN_SQL_STMT(-1, 1, nullptr, 0, nullptr, 0, 0, nullptr, nullptr, nullptr, 0); }

// Repeats `unit` and fills with 'x' to exactly `size` bytes.
std::string text_of(const std::string& unit, size_t size) {
    std::string s;
    while (s.size() + unit.size() <= size) s += unit;
    s.resize(size, 'x');
    return s;
}

// The piece behind `head` in a record's text field (the texts used hold no
// spaces, so the padding ends it).
std::string piece_of(const TRAN_LOG_MSG& m, const std::string& head) {
    std::string_view f = body_field(m, kText, kField + 1);
    EXPECT_EQ(f.substr(0, head.size()), head);
    EXPECT_EQ(f.back(), ' ');
    std::string_view rest = f.substr(head.size(), kField - head.size());
    size_t end = rest.find(' ');
    EXPECT_EQ(rest.find_first_not_of(' ', end == std::string_view::npos ? rest.size() : end), std::string_view::npos);
    return std::string(rest.substr(0, end));
}

// `n` bytes of `fill` that end right before a page that cannot be read: a
// reader that looks for a terminator beyond them faults.
class Unterminated {
public:
    Unterminated(size_t n, char fill) {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        size_ = (n + page - 1) / page * page + page;
        void* m = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (m == MAP_FAILED) return;
        base_ = static_cast<char*>(m);
        char* guard = base_ + size_ - page;
        if (mprotect(guard, page, PROT_NONE) != 0) return;
        text_ = guard - n;
        std::memset(text_, fill, n);
    }
    ~Unterminated() {
        if (base_) munmap(base_, size_);
    }
    Unterminated(const Unterminated&) = delete;
    Unterminated& operator=(const Unterminated&) = delete;
    char* text() const { return text_; }  // null when the pages could not be set up

private:
    char* base_ = nullptr;
    size_t size_ = 0;
    char* text_ = nullptr;
};

std::set<size_t> euckr_char_starts(const std::string& s) {
    std::set<size_t> starts;
    for (size_t i = 0; i < s.size(); i += static_cast<unsigned char>(s[i]) >= 0xA1 ? 2 : 1) starts.insert(i);
    starts.insert(s.size());
    return starts;
}

class TranSql : public TracedThread {
protected:
    void TearDown() override {
        TracedThread::TearDown();
        collector().drain();
    }
    kit::Collector& collector() { return TestIpc::get().collector(); }
    void enter(const char* func = "DBIO_select_emp", int64_t sql_limit = 0) {
        enter_dbio(*cxt_, gid_, func, sql_limit);
    }

    // The `count` records that a close returning `rc` sent, and no more.
    std::vector<TRAN_LOG_MSG> received(int rc, int count) {
        std::vector<TRAN_LOG_MSG> out(static_cast<size_t>(count));
        EXPECT_EQ(rc, queue_of_gid(gid_));
        for (TRAN_LOG_MSG& m : out) EXPECT_EQ(collector().receive(m, queue_of_gid(gid_)), queue_of_gid(gid_));
        TRAN_LOG_MSG extra{};
        EXPECT_EQ(collector().receive(extra), -1);
        return out;
    }
    // The pieces of the only kept statement, sent by a close; every record is
    // checked against its piece header.
    std::vector<std::string> pieces(const std::string& first_head, int count) {
        std::vector<std::string> out;
        int n = 0;
        for (const TRAN_LOG_MSG& m : received(close_call(), count)) {
            EXPECT_EQ(body_len(m), 548u);
            std::string head = ++n == 1 ? first_head : "1,1," + std::to_string(n) + ",";
            out.push_back(piece_of(m, head));
        }
        return out;
    }

    const std::string gid_ = "GID-SQL-0000000000000000000001";
};

TEST_F(TranSql, RecordBytesComeFromTheSecondaryBufferAtClose) {
    enter("DBIO_select_emp(a,b)");
    const TRAN_LOG_MSG primary = cxt_->log_rec;
    EXPECT_EQ(report("SELECT 1 FROM DUAL", 7, tv(100, 250000), tv(101, 750000), "20260102", "030405123456"), 0);
    // The header was written with the first statement; a later one's date
    // and time do not replace it.
    EXPECT_EQ(report("SELECT 2 FROM DUAL", 8, tv(102, 0), tv(102, 1), "19990101", "235959000000"), 0);
    TRAN_LOG_MSG none{};
    EXPECT_EQ(collector().receive(none), -1);
    EXPECT_EQ(e_->sql_rec_cnt, 2);

    std::vector<TRAN_LOG_MSG> recs = received(close_call(), 2);
    const TRAN_LOG_MSG& m = recs[0];
    char host[64] = {};
    ASSERT_EQ(gethostname(host, sizeof host - 1), 0);
    char ids[64];
    std::snprintf(ids, sizeof ids, "%08d %015lu %05d %05u ", static_cast<int>(getpid()),
                  static_cast<unsigned long>(static_cast<uint64_t>(pthread_self()) % 1000000000000000ULL), cxt_->idx,
                  e_->pidx);
    EXPECT_EQ(m.mtype, 1);
    EXPECT_EQ(body_len(m), 548u);
    EXPECT_EQ(body_field(m, 0, 7), "Q      ");
    EXPECT_EQ(body_field(m, 7, 33), padded(gid_, 32) + " ");
    EXPECT_EQ(body_field(m, 40, 16), std::string(16, ' '));  // the process name is only in the primary body
    EXPECT_EQ(body_field(m, 56, 17), "SVC-SQL-0001     ");
    EXPECT_EQ(body_field(m, 73, 65), padded(host, 64) + " ");
    EXPECT_EQ(body_field(m, 138, 37), ids);
    EXPECT_EQ(body_field(m, 175, 22), "20260102 030405123456 ");
    EXPECT_EQ(body_field(m, kText, kField + 1),
              padded("1,2,1,1,1.500000,7,DBIO_select_emp(a),SELECT 1 FROM DUAL", kField) + " ");
    EXPECT_EQ(body_field(m, 548, 232), std::string(232, ' '));
    EXPECT_EQ(body_field(recs[1], 175, 22), "20260102 030405123456 ");
    EXPECT_EQ(body_field(recs[1], kText, kField + 1),
              padded("2,2,1,1,0.000001,8,DBIO_select_emp(a),SELECT 2 FROM DUAL", kField) + " ");
    EXPECT_EQ(std::memcmp(&primary, &cxt_->log_rec, sizeof primary), 0);

    // The slot as the collector sees it; closing leaves the count to the call
    // finish.
    const SQL_SLOT& s = e_->sql_slot[0];
    EXPECT_EQ(s.sql_len, 18);
    EXPECT_EQ(s.sql_no, 7);
    EXPECT_EQ(s.start_tv.tv_sec, 100);
    EXPECT_EQ(s.start_tv.tv_usec, 250000);
    EXPECT_EQ(s.end_tv.tv_sec, 101);
    EXPECT_EQ(s.end_tv.tv_usec, 750000);
    EXPECT_STREQ(s.sql_text, "SELECT 1 FROM DUAL");
    EXPECT_EQ(s.rep_cnt, 1u);
    EXPECT_EQ(s.func_nm_end, '\0');

    // The next DBIO call writes a new header with its first statement; the
    // internal close of the call finish sends the same records.
    e_->sql_rec_cnt = 0;
    EXPECT_EQ(report("SELECT 3", 9, tv(5, 0), tv(5, 2), "20270303", nullptr), 0);
    recs = received(tran_sql_stmt_close(*cxt_), 1);
    EXPECT_EQ(body_field(recs[0], 175, 9), "20270303 ");
    EXPECT_EQ(body_field(recs[0], 184, 13).find_first_not_of("0123456789"), 12u);
    EXPECT_EQ(body_field(recs[0], kText, 40), padded("1,1,1,1,0.000002,9,DBIO_select_emp(a),SELECT 3", 40));
}

TEST_F(TranSql, RepeatsMergeAndAtMostFiveStatementsAreKept) {
    enter("DBIO_fn");
    EXPECT_EQ(report("SELECT 1", 1, tv(10, 0), tv(10, 100)), 0);
    EXPECT_EQ(report("SELECT 1", 1, tv(11, 0), tv(11, 200)), 0);
    EXPECT_EQ(report("SELECT 1", 1, tv(12, 0), tv(12, 300)), 0);
    EXPECT_EQ(e_->sql_rec_cnt, 1);
    EXPECT_EQ(e_->sql_slot[0].rep_cnt, 3u);
    EXPECT_EQ(e_->sql_slot[0].start_tv.tv_sec, 10);
    EXPECT_EQ(e_->sql_slot[0].end_tv.tv_sec, 12);
    EXPECT_EQ(e_->sql_slot[0].end_tv.tv_usec, 300);

    // Same number and length, another text: dropped.
    EXPECT_EQ(report("SELECT 9", 1, tv(13, 0), tv(14, 0)), 0);
    EXPECT_EQ(e_->sql_rec_cnt, 1);
    EXPECT_STREQ(e_->sql_slot[0].sql_text, "SELECT 1");
    EXPECT_EQ(e_->sql_slot[0].rep_cnt, 3u);
    EXPECT_EQ(e_->sql_slot[0].end_tv.tv_sec, 12);

    // Another number or another length takes a new slot; only the last slot
    // is compared.
    EXPECT_EQ(report("SELECT 1", 2, tv(20, 0), tv(21, 0)), 0);
    EXPECT_EQ(report("SELECT 10", 2, tv(22, 0), tv(22, 5)), 0);
    EXPECT_EQ(report("SELECT 1", 1, tv(23, 0), tv(23, 1)), 0);
    EXPECT_EQ(report("SELECT 5", 5, tv(24, 0), tv(24, 1)), 0);
    EXPECT_EQ(e_->sql_rec_cnt, 5);
    EXPECT_EQ(report("SELECT 6", 6, tv(25, 0), tv(25, 1)), VARNIX_RC_SQL_LIMIT);
    EXPECT_EQ(report("SELECT 5", 5, tv(26, 0), tv(26, 7)), 0);  // a repeat still merges
    EXPECT_EQ(e_->sql_rec_cnt, 5);
    EXPECT_EQ(e_->sql_slot[4].rep_cnt, 2u);

    const char* expected[] = {
        "1,5,1,3,2.000300,1,DBIO_fn,SELECT 1", "2,5,1,1,1.000000,2,DBIO_fn,SELECT 1",
        "3,5,1,1,0.000005,2,DBIO_fn,SELECT 10", "4,5,1,1,0.000001,1,DBIO_fn,SELECT 1",
        "5,5,1,2,2.000007,5,DBIO_fn,SELECT 5"};
    std::vector<TRAN_LOG_MSG> recs = received(close_call(), 5);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(body_field(recs[i], kText, kField), padded(expected[i], kField)) << i;

    // A count beyond five (written by someone else) is refused by validation.
    e_->sql_rec_cnt = 6;
    EXPECT_EQ(report("SELECT 7", 7, tv(1, 0), tv(1, 1)), VARNIX_RC_SQL_LIMIT);
}

TEST_F(TranSql, OnlyStatementsAtTheLimitOrSlowerAreSent) {
    enter("DBIO_fn", 200000);
    EXPECT_EQ(report("A", 1, tv(1, 900000), tv(2, 99999)), 0);  // 199,999 us
    EXPECT_EQ(report("BB", 2, tv(3, 900000), tv(4, 100000)), 0);
    EXPECT_EQ(report("CCC", 3, tv(5, 0), tv(5, 300000)), 0);
    std::vector<TRAN_LOG_MSG> recs = received(close_call(), 2);
    EXPECT_EQ(body_field(recs[0], kText, kField), padded("2,3,1,1,0.200000,2,DBIO_fn,BB", kField));
    EXPECT_EQ(body_field(recs[1], kText, kField), padded("3,3,1,1,0.300000,3,DBIO_fn,CCC", kField));

    e_->sql_rec_cnt = 0;
    EXPECT_EQ(report("D", 4, tv(1, 0), tv(1, 1)), 0);
    EXPECT_EQ(close_call(), 0);
    EXPECT_EQ(collector().drain(), 0);
}

TEST_F(TranSql, OutsideAnOpenDbioCallNothingIsKept) {
    EXPECT_EQ(report("S", 1, tv(1, 0), tv(1, 1)), VARNIX_RC_SVC_DEPTH);
    enter();
    cxt_->service_depth = 11;
    EXPECT_EQ(report("S", 1, tv(1, 0), tv(1, 1)), VARNIX_RC_SVC_DEPTH);
    cxt_->service_depth = 1;
    e_->trc_lvl = 0;
    EXPECT_EQ(report("S", 1, tv(1, 0), tv(1, 1)), VARNIX_RC_CALL_DEPTH);
    EXPECT_EQ(close_call(), VARNIX_RC_CALL_DEPTH);
    e_->trc_lvl = 52;
    EXPECT_EQ(report("S", 1, tv(1, 0), tv(1, 1)), VARNIX_RC_CALL_DEPTH);

    // Only the innermost open level counts.
    e_->trc_lvl = 2;
    e_->call_lvl[1].call_kind = 'C';
    EXPECT_EQ(report("S", 1, tv(1, 0), tv(1, 1)), VARNIX_RC_SQL_NO_DBIO);
    EXPECT_EQ(close_call(), VARNIX_RC_SQL_NO_DBIO);
    EXPECT_EQ(tran_sql_stmt_close(*cxt_), VARNIX_RC_SQL_NO_DBIO);
    e_->call_lvl[0].call_kind = 'C';
    e_->call_lvl[1].call_kind = 'B';
    EXPECT_EQ(report("S", 1, tv(1, 0), tv(1, 1)), 0);
    EXPECT_EQ(e_->sql_rec_cnt, 1);
    EXPECT_EQ(TRAN_SQL_STMT(-1, 2, nullptr, 0, nullptr, 0, 1, nullptr, nullptr, "S2", -1), 0);
    EXPECT_EQ(e_->sql_rec_cnt, 1);

    cxt_->log_bit = 3;  // the service has ended
    EXPECT_EQ(report("S", 2, tv(1, 0), tv(1, 1)), VARNIX_RC_NO_SERVICE);
    cxt_->log_bit = 1;
    TestIpc::get().que_info().log_flag_set = get_log_flag_set("SEVBCIX");
    EXPECT_EQ(report("S", 2, tv(1, 0), tv(1, 1)), VARNIX_RC_CLASS_OFF);
    EXPECT_EQ(close_call(), VARNIX_RC_CLASS_OFF);
    EXPECT_EQ(tran_sql_stmt_close(*cxt_), VARNIX_RC_CLASS_OFF);
    EXPECT_EQ(TRAN_SQL_ID(-1, "ID", -1), VARNIX_RC_CLASS_OFF);
    EXPECT_EQ(e_->sql_rec_cnt, 1);
    EXPECT_EQ(collector().drain(), 0);
}

TEST_F(TranSql, LongTextsAreSplitBetweenEucKrCharacters) {
    // EUC-KR syllables (ga, na, da, ra, ma, ba, sa, a, ja, cha, ka, ta, pa, ha)
    // with trail bytes inside and outside the lead-byte range, between ASCII.
    const std::string syllables =
        "\xb0\xa1\xb3\xaa\xb4\xd9\xb6\xf3\xb8\xb6\xb9\xd9\xbb\xe7\xbe\xc6\xc0\xda\xc2\xf7\xc4\xab\xc5\xb8\xc6\xc4"
        "\xc7\xcf";
    std::string unit;
    for (size_t i = 0; i < syllables.size(); i += 6) unit += syllables.substr(i, 6) + "x";
    const std::string text = text_of(unit, 1000);
    enter("DBIO_euckr,with,commas");
    EXPECT_EQ(report(text.c_str(), 4, tv(1, 0), tv(3, 5)), 0);
    EXPECT_EQ(e_->sql_slot[0].sql_len, 1000);
    std::vector<std::string> p = pieces("1,1,1,1,2.000005,4,DBIO_euckr),", 3);
    ASSERT_EQ(p.size(), 3u);
    EXPECT_EQ(p[0] + p[1] + p[2], text);
    const std::set<size_t> starts = euckr_char_starts(text);
    size_t at = 0;
    bool moved = false;
    for (size_t i = 0; i < p.size(); ++i) {
        at += p[i].size();
        EXPECT_TRUE(starts.count(at)) << "piece " << i << " ends inside a character at " << at;
        moved |= i + 1 < p.size() && p[i].size() < kField - (i == 0 ? 31 : 6);
    }
    EXPECT_TRUE(moved);

    // UTF-8 text is cut by the same rule: a character split between two
    // pieces joins back intact.
    e_->sql_rec_cnt = 0;
    const std::string utf8 = text_of("\xea\xb0\x80\xc3\xa9x", 1000);
    EXPECT_EQ(report(utf8.c_str(), 5, tv(1, 0), tv(1, 1)), 0);
    p = pieces("1,1,1,1,0.000001,5,DBIO_euckr),", 3);
    ASSERT_EQ(p.size(), 3u);
    EXPECT_EQ(p[0] + p[1] + p[2], utf8);
}

TEST_F(TranSql, PieceWithoutABoundaryIsCutAtTheRoomLeft) {
    // Nothing but Hangul lead-range bytes: no boundary can be found.
    const std::string text(400, '\xb0');
    enter("DBIO_x");
    LogTail log;
    EXPECT_EQ(report(text.c_str(), 1, tv(1, 0), tv(1, 0)), 0);
    std::vector<std::string> p = pieces("1,1,1,1,0.000000,1,DBIO_x,", 2);
    ASSERT_EQ(p.size(), 2u);
    EXPECT_EQ(p[0].size(), 324u);
    EXPECT_EQ(p[0] + p[1], text);
    EXPECT_EQ(log.take(), Lines{"<!> send_len(324) length error"});
}

TEST_F(TranSql, TextLengthsAtTheLimitAndBadArguments) {
    enter();
    struct Case {
        std::string text;
        int kept;
    };
    const std::string ga_x = "x" + text_of("\xb0\xa1", 9000);  // an EUC-KR lead byte at 8191
    const Case cases[] = {
        {std::string(8191, 'a'), 8191},
        {std::string(8192, 'a'), 8192},
        {std::string(8193, 'a'), 8192},
        {text_of("\xea\xb0\x80", 9000), 8191},  // the rule drops the B0 at the end
        {text_of("\xc3\xa9", 9000), 8192},      // two- and four-byte UTF-8 keep all they can
        {text_of("\xf0\x9f\x98\x80", 9000), 8192},
        {ga_x, 8191},
        {"x" + ga_x, 8192},
    };
    for (const Case& c : cases) {
        e_->sql_rec_cnt = 0;
        EXPECT_EQ(TRAN_SQL_STMT(-1, 0, nullptr, 0, nullptr, 0, 1, nullptr, nullptr, c.text.c_str(), 3), 0);
        EXPECT_EQ(e_->sql_slot[0].sql_len, c.kept) << c.text.size();
        EXPECT_TRUE(std::string(e_->sql_slot[0].sql_text) == c.text.substr(0, static_cast<size_t>(c.kept)));
    }
    // An unterminated text is read no further than the slot holds, and cut
    // there like a longer one.
    Unterminated full(8192, 'a');
    ASSERT_NE(full.text(), nullptr);
    full.text()[8191] = '\xb0';
    e_->sql_rec_cnt = 0;
    EXPECT_EQ(TRAN_SQL_STMT(-1, 0, nullptr, 0, nullptr, 0, 1, nullptr, nullptr, full.text(), -1), 0);
    EXPECT_EQ(e_->sql_slot[0].sql_len, 8191);

    // Absent and empty texts are kept as empty statements, and send nothing.
    e_->sql_rec_cnt = 0;
    EXPECT_EQ(report(nullptr, 1, tv(1, 0), tv(2, 0)), 0);
    EXPECT_EQ(report("", 1, tv(3, 0), tv(4, 0)), 0);
    EXPECT_EQ(e_->sql_rec_cnt, 1);
    EXPECT_EQ(e_->sql_slot[0].sql_len, 0);
    EXPECT_EQ(e_->sql_slot[0].rep_cnt, 2u);
    EXPECT_EQ(close_call(), 0);

    // Microsecond counts with 9999, the statement number kept in 16 bits,
    // absent times taken as now, and date and time cut or padded.
    e_->sql_rec_cnt = 0;
    const int64_t us_start = 5'000'000'000, us_end = 5'000'250'000;
    EXPECT_EQ(TRAN_SQL_STMT(-1, 0, "2026", 3, "0102030405060708", -1, 9999, &us_start, &us_end, "U", -1), 0);
    EXPECT_EQ(e_->sql_slot[0].start_tv.tv_sec, 5000);
    EXPECT_EQ(e_->sql_slot[0].end_tv.tv_usec, 250000);
    EXPECT_EQ(TRAN_SQL_STMT(-1, 0, nullptr, 0, nullptr, 0, 70000, nullptr, nullptr, "V", -1), 0);
    const SQL_SLOT& s = e_->sql_slot[1];
    EXPECT_EQ(s.sql_no, 70000 & 0xFFFF);
    EXPECT_LT(s.end_tv.tv_sec - s.start_tv.tv_sec, 2);
    EXPECT_GT(s.start_tv.tv_sec, 1'600'000'000);
    // Times at the ends of their range wrap around instead of overflowing.
    EXPECT_EQ(report("W", 3, tv(LONG_MAX, 0), tv(LONG_MIN, 0)), 0);
    std::vector<TRAN_LOG_MSG> recs = received(close_call(), 3);
    EXPECT_EQ(body_field(recs[0], 175, 22), "202      010203040506 ");
    EXPECT_EQ(body_field(recs[0], kText, 30), padded("1,3,1,1,0.250000,9999,DBIO_sel", 30));
    EXPECT_EQ(body_field(recs[1], kText, 8), "2,3,1,1,");
    EXPECT_EQ(body_field(recs[2], kText, 19), "3,3,1,1,1.000000,3,");
}

TEST_F(TranSql, SqlIdIsStoredInTheEntryAndNothingIsSent) {
    char* after = reinterpret_cast<char*>(e_) + offsetof(PTRC_HASH, sql_id) + sizeof e_->sql_id;
    *after = 'z';
    EXPECT_EQ(TRAN_SQL_ID(-1, "SQLID-0001", -1), 0);  // no service or call needed
    EXPECT_EQ(std::string_view(e_->sql_id, 200), padded("SQLID-0001", 200));
    EXPECT_EQ(*after, ' ');
    EXPECT_EQ(TRAN_SQL_ID(-1, "SQLID-0001", 3), 0);
    EXPECT_EQ(std::string_view(e_->sql_id, 200), padded("SQL", 200));
    const std::string long_id(250, 'L');
    EXPECT_EQ(TRAN_SQL_ID(-1, long_id.c_str(), -1), 0);
    EXPECT_EQ(std::string_view(e_->sql_id, 200), std::string(200, 'L'));
    EXPECT_EQ(*after, ' ');
    EXPECT_EQ(TRAN_SQL_ID(-1, nullptr, 5), 0);
    EXPECT_EQ(std::string_view(e_->sql_id, 200), std::string(200, ' '));
    Unterminated id(200, 'U');  // no terminator: only the field's width is read
    ASSERT_NE(id.text(), nullptr);
    EXPECT_EQ(TRAN_SQL_ID(-1, id.text(), -1), 0);
    EXPECT_EQ(std::string_view(e_->sql_id, 200), std::string(200, 'U'));
    EXPECT_EQ(collector().drain(), 0);
}

}  // namespace
}  // namespace varnix::test

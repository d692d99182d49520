// varnix-agent end to end on this process's own keys: one table of 603 MB
// serves the whole binary; the agent that created it is killed, its successor
// takes it over, and the last test stops that one.
#include <grp.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <nlohmann/json.hpp>

#include <atomic>
#include <bitset>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <sstream>

#include "collector/record_layout.h"
#include "core/ipc.h"
#include "kit/manifest.h"
#include "support/calls.h"
#include "support/in_child.h"
#include "support/spawn.h"
#include "support/temp_dir.h"
#include "support/thread_group.h"

namespace varnix::test {
namespace {

using Json = nlohmann::json;

class Agent : public testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(tmp_.ok());
        dir_ = tmp_.path();
        std::filesystem::create_directories(dir_ + "/agt/log/proc/libvarnix");
        conf_.keys = kit::keys_for_pid(getpid());
        conf_.log_home = "log";
        conf_.tong_log_home = dir_;
        conf_.ipc_group = std::to_string(group_);
        ASSERT_TRUE(kit::write_file(cfg(), kit::config_text(conf_)));
        // A zone east of UTC: record times are local, the timeline's UTC.
        ASSERT_EQ(setenv("TRAN_HOME", dir_.c_str(), 1) | setenv("TRAN_AGT_HOME", (dir_ + "/agt").c_str(), 1) |
                      setenv("TRAN_AGT_CFG_FILE", cfg().c_str(), 1) | setenv("TZ", "KST-9", 1),
                  0);
        tzset();
        ASSERT_TRUE(start_agent("/agent.err"));
        testing::internal::CaptureStdout();  // the banner
        ASSERT_EQ(TRAN_INIT(), 0);
        testing::internal::GetCapturedStdout();
    }

    // An agent still running (the suite failed or ran in part) is stopped as
    // an operator stops it; what a killed agent left goes by key.
    static void TearDownTestSuite() {
        stop_tracing();
        if (agent_ > 0 && kill(agent_, SIGTERM) == 0) waitpid(agent_, nullptr, 0);
        for (const kit::Keys& k : {conf_.keys, other_keys()}) collector::remove_ids(collector::ids_of(k, conf_.max_que_cnt));
    }

    static std::string cfg() { return dir_ + "/agt/varnix.cfg"; }

    // Keys of a second configuration, from the rest of this process's block.
    static kit::Keys other_keys() {
        const kit::Keys& k = conf_.keys;
        return {k.que_info + 5, k.que_info + 6, k.que_info + 7, k.que_info + 8, k.que_info + 9, k.msgq + 4};
    }

    // Starts `varnix-agent start`, its errors into dir_ + ERR, and waits until it runs.
    static bool start_agent(const std::string& err) {
        err_ = dir_ + err;
        agent_ = spawn({VARNIX_AGENT, "start", "--out", dir_ + "/out.jsonl"}, "/dev/null", err_);
        return wait_for([] { return read_file(err_).find("running") != std::string::npos; });
    }

    // Runs `varnix-agent ARGS...`; its exit status, its output and errors.
    static int agent(std::vector<std::string> args, std::string* out = nullptr, std::string* err = nullptr,
                     const std::string& cfg_file = cfg()) {
        args.insert(args.begin() + 1, {"-c", cfg_file});
        args.insert(args.begin(), VARNIX_AGENT);
        const std::string o = dir_ + "/cmd.out", e = dir_ + "/cmd.err";
        const int rc = exit_status(spawn(args, o, e));
        if (out) *out = read_file(o);
        if (err) *err = read_file(e);
        return rc;
    }

    // The agent's records so far.
    static std::vector<Json> records() {
        std::vector<Json> all;
        std::ifstream in(dir_ + "/out.jsonl");
        for (std::string line; std::getline(in, line);) all.push_back(Json::parse(line, nullptr, false));
        return all;
    }

    // Waits for the records of `gid` up to one of type `last`.
    static std::vector<Json> records_of(const std::string& gid, const char* last) {
        std::vector<Json> mine;
        wait_for([&] {
            mine.clear();
            for (Json& r : records())
                if (r.value("gid", "") == gid) mine.push_back(r);
            return !mine.empty() && mine.back()["log_type"] == last;
        });
        return mine;
    }

    // The objects' group: as root one that no process of the test has.
    static inline const gid_t group_ = geteuid() == 0 ? 4242 : getegid();
    static inline TempDir tmp_;
    static inline std::string dir_;
    static inline kit::AgentConfig conf_;
    static inline pid_t agent_ = -1;
    static inline std::string err_;  // the running agent's standard error
};

// An event record; its result.
int event(const char* gid, const char* evt_no, const char* text, const char* svc = nullptr) {
    return TRAN_EVENT(-1, nullptr, 0, nullptr, 0, gid, -1, svc, svc ? -1 : 0, nullptr, 0, nullptr, 0, nullptr, 0,
                      evt_no, -1, nullptr, 0, nullptr, 0, text, -1);
}

// What depends on the moment, the host and the table rather than the call.
Json stable(Json r) {
    EXPECT_EQ(r["pid"], getpid());
    EXPECT_EQ(r["schema"], 1);
    if (r.contains("start_us")) {
        EXPECT_EQ(r["end_us"].get<int64_t>() - r["start_us"].get<int64_t>(), r["elapsed_us"]);
    }
    for (const char* k : {"schema", "queue", "host_nm", "pid", "tid", "idx", "pidx", "ts_us", "trace_id", "span_id",
                          "duration_us", "elapsed_us", "call_us", "own_us", "called_us", "dbio_us", "start_us",
                          "end_us"})
        r.erase(k);
    return r;
}

TEST_F(Agent, EveryRecordTypeBecomesOneJsonObjectAndMalformedOnesAreSkipped) {
    ServiceCall s;
    s.gid = "AGENT-GID-0001";
    s.svc_id = "ACCT_TRANSFER";
    s.tail[2] = "WEB";
    s.tail[3] = "RECV01";
    std::string sql = "SELECT memo FROM account WHERE memo = '";
    for (int i = 0; i < 300; ++i) sql += "가";  // pieces are cut inside the Korean text
    sql += "' AND id = 1";
    const int64_t before = usec_of(clock_now());
    EXPECT_LT(call(TRAN_START, s), 99);
    EXPECT_EQ(call_start("transfer_funds"), 0);
    EXPECT_EQ(call_start("DBIO_update"), 0);
    EXPECT_EQ(TRAN_SQL_STMT(-1, 0, nullptr, 0, nullptr, 0, 7, nullptr, nullptr, sql.c_str(), -1), 0);
    EXPECT_LT(call_finish("DBIO_update", -3), 99);
    EXPECT_LT(call_finish("transfer_funds", 0, "METHOD"), 99);
    EXPECT_LT(TRAN_INFO(-1, "IN", -1, "f", -1, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, "a notice", -1),
              99);
    EXPECT_LT(TRAN_INFO_EX(-1, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, "X001",
                           -1, "extended", -1),
              99);
    EXPECT_LT(TRAN_ERRINFO(-1, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0,
                           "1105", -1, "RECV01", -1, "O", -1, "[E0001] 잔액 부족", -1),
              99);
    EXPECT_LT(call(TRAN_ERROR, s), 99);
    EXPECT_LT(event("AGENT-GID-0001", "9001", "an event", "ACCT_TRANSFER"), 99);
    EXPECT_LT(call(TRAN_END, s), 99);

    std::vector<Json> got = records_of("AGENT-GID-0001", "2");
    ASSERT_EQ(got.size(), 11u);
    // One trace; the service's records and notices under its span, the SQL
    // under its DBIO call's; times in UTC, the end's duration.
    const int64_t after = usec_of(clock_now());
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i]["trace_id"], got[0]["trace_id"]);
        EXPECT_EQ(got[i]["span_id"] == got[0]["span_id"], i != 1 && i != 2 && i != 3) << i;
        EXPECT_GE(got[i]["ts_us"], before);
        EXPECT_LE(got[i]["ts_us"], after);
    }
    EXPECT_EQ(got[1]["span_id"], got[2]["span_id"]);
    EXPECT_EQ(got[10]["duration_us"], got[10]["ts_us"].get<int64_t>() - got[0]["ts_us"].get<int64_t>());
    for (Json& r : got) r = stable(r);
    const Json head = {{"gid", "AGENT-GID-0001"}, {"svc_id", "ACCT_TRANSFER"}};
    auto with = [&](Json j, bool proc_nm = true) {
        j.update(head);
        if (proc_nm) j["proc_nm"] = "test_agent";
        return j;
    };
    auto svc = [&](const char* type, const char* name) {
        return with({{"cls_cd", "CL"}, {"dtl_cd", "D"}, {"depth", 1}, {"chnl_typ_cd", "WEB"}, {"recv_svc_cd", "RECV01"},
                     {"log_type", type}, {"record", name}});
    };
    // What the call records share.
    const Json call_rec = {{"cls_cd", "CL"},         {"dtl_cd", "D"},       {"call_trc_depth_max", 10},
                           {"module_nm", "fin_mod"}, {"source_nm", "fin.c"}, {"line_no", 42}};
    auto call_of = [&](Json j) {
        j.update(call_rec);
        return with(j);
    };
    EXPECT_EQ(got[0], svc("1", "service_start"));
    EXPECT_EQ(got[1], with({{"record", "sql"}, {"log_type", "Q"}, {"slot", 1}, {"sql_rec_cnt", 1}, {"rep_cnt", 1},
                            {"sql_no", 7}, {"func_nm", "DBIO_update"}, {"pieces", 3}, {"sql", sql}},
                           false));
    EXPECT_EQ(got[2], call_of({{"record", "dbio"}, {"log_type", "B"}, {"trc_lvl", 2}, {"func_nm", "DBIO_update"},
                               {"call_seq", 2}, {"sql_code", 9999}, {"rc", -3}, {"fetch_line", 0}, {"fetch_rows", 0},
                               {"fetch_us", 0}}));
    EXPECT_EQ(got[3], call_of({{"record", "bizcall"}, {"log_type", "C"}, {"trc_lvl", 1}, {"kind_label", "METHOD"},
                               {"func_nm", "transfer_funds"}, {"call_seq", 1}, {"rc", 0}}));
    EXPECT_EQ(got[4], with({{"record", "info"}, {"log_type", "I"}, {"cls_cd", "IN"}, {"dtl_cd", "f"},
                            {"msg_text", "a notice"}}));
    Json info_ex = with({{"record", "info_ex"}, {"log_type", "X"}, {"info_cd", "X001"}, {"msg_text", "extended"}});
    info_ex.erase("svc_id");  // only the caller's
    EXPECT_EQ(got[5], info_ex);
    EXPECT_EQ(got[6], with({{"record", "error_info"}, {"log_type", "E"}, {"evt_no", "1105"}, {"recv_svc_cd", "RECV01"},
                            {"chnl_class", "O"}, {"msg_text", "[E0001] 잔액 부족"}}));
    EXPECT_EQ(got[7], svc("9", "service_error"));
    EXPECT_EQ(got[8], with({{"record", "event"}, {"log_type", "V"}, {"evt_no", "9001"}, {"msg_text", "an event"}}));
    EXPECT_EQ(got[9]["log_type"], "I");
    EXPECT_EQ(got[9]["msg_text"].get<std::string>().rfind("처리 모듈(함수)통계 [ 총 호출 2 건 ]", 0), 0u);
    EXPECT_EQ(got[10], svc("2", "service_end"));

    // Malformed records are reported and skipped; the next one is still read.
    const int q = msgget(conf_.keys.msgq, 0);
    ASSERT_GE(q, 0);
    // A blank record of a type and body length with its tid and `text` at body offset `at`.
    auto record = [](char type, uint32_t len, const char* tid, int at, std::string_view text) {
        TRAN_LOG_MSG m{1, {}};
        std::memset(m.text, ' ', sizeof m.text);
        std::memcpy(m.text, &len, sizeof len);
        m.text[4] = type;
        std::memcpy(m.text + 4 + 147, tid, std::strlen(tid));
        std::memcpy(m.text + 4 + at, text.data(), text.size());
        return m;
    };
    auto event_rec = [&](const char* tid, const char* text) { return record('V', 733, tid, 220, text); };
    const TRAN_LOG_MSG short_one = event_rec("1234", "short"), bad_tid = event_rec("12x4", "fine"),
                       bad_text = event_rec("1234", "caf\xE9!");
    // Call records whose first time is the largest that fits in microseconds, and one second more.
    auto timed = [&](const char* elapsed) {
        return record('C', 548, "1234", collector::body_fields('C', 548)[0].offset,
                      std::string("1,1,") + elapsed + ",0.000001,0.000001,0.000001,0.000001,0.000001,");
    };
    const TRAN_LOG_MSG largest = timed("9223372036854.775807"), too_large = timed("9223372036854.775808");
    ASSERT_EQ(msgsnd(q, &short_one, 10, 0), 0);
    for (const TRAN_LOG_MSG* m : {&bad_tid, &bad_text, &largest, &too_large})
        ASSERT_EQ(msgsnd(q, m, VARNIX_REC_TEXT, 0), 0);
    ASSERT_LT(event("AFTER-BAD", "9003", "still read"), 99);
    ASSERT_EQ(records_of("AFTER-BAD", "V").size(), 1u);
    std::vector<Json> bad;
    int largest_read = 0;
    for (Json& r : records()) {
        if (r.contains("malformed")) bad.push_back(r);
        largest_read += r.value("elapsed_us", int64_t{0}) == INT64_MAX;
    }
    EXPECT_EQ(largest_read, 1);
    ASSERT_EQ(bad.size(), 4u);
    EXPECT_EQ(bad[3]["malformed"], "call text without its figures");
    bad[0].erase("ts_us");
    EXPECT_EQ(bad[0], Json({{"schema", 1}, {"queue", 0}, {"malformed", "length 10, not 784"},
                            {"bytes", "\\xDD\\x02\\x00\\x00V"}}));
    EXPECT_EQ(bad[1]["malformed"], "field tid is not a number");
    EXPECT_EQ(bad[2]["malformed"], "field msg_text is not UTF-8");
    EXPECT_NE(bad[2]["bytes"].get<std::string>().find("caf\\xE9!"), std::string::npos);
    // The first one is reported at once; the next ones wait for the second to pass.
    EXPECT_NE(read_file(dir_ + "/agent.err")
                  .find("varnix-agent: 1 malformed records skipped, the last from queue 0: length 10, not 784\n"),
              std::string::npos);
}

// Statements whose pieces end with spaces, or begin with a byte the cut rule
// drops, are joined back exactly; only a statement's own trailing spaces go
// with the padding of its last piece.
TEST_F(Agent, SqlPiecesJoinToTheTextTheHostPassed) {
    const int first = 350 - static_cast<int>(std::strlen("1,5,1,1,0.000000,7,DBIO_sql,"));
    const int later = 350 - static_cast<int>(std::strlen("1,5,2,"));
    auto x = [](int n, char c = 'x') { return std::string(static_cast<size_t>(n), c); };
    const std::string sql[] = {
        x(first - 1) + " 가나 end",                                  // a space, then a character kept whole
        x(first - 1) + " étail",                                     // a space, then a byte the rule drops
        x(first - 2) + " étail",                                     // é split by the rule after a space
        "x" + x(first + 350, ' ') + "°é  mid  end",                  // a piece of spaces between
        x(first) + x(later - 1, ' ') + "é z   ",                     // spaces up to a split é; trailing spaces
    };
    ServiceCall s;
    s.gid = "SQL-GID";
    s.svc_id = "SQL_SVC";
    ASSERT_LT(call(TRAN_START, s), 99);
    ASSERT_EQ(call_start("DBIO_sql"), 0);
    for (const std::string& text : sql)
        EXPECT_EQ(TRAN_SQL_STMT(-1, 0, nullptr, 0, nullptr, 0, 7, nullptr, nullptr, text.c_str(), -1), 0);
    EXPECT_LT(call_finish("DBIO_sql"), 99);
    EXPECT_LT(call(TRAN_END, s), 99);
    std::vector<std::string> got;
    for (const Json& r : records_of("SQL-GID", "2"))
        if (r["record"] == "sql") got.push_back(r.value("sql", "?"));
    std::vector<std::string> want(std::begin(sql), std::end(sql));
    want.back().erase(want.back().find_last_not_of(' ') + 1);
    EXPECT_EQ(got, want);
}

// Every object has the configured mode and group.  A process of another user
// attaches as the library does (read and write asked for everybody, no create
// flag) when it is in the group, and is refused when it is not.
TEST_F(Agent, ObjectsAreOpenToTheMembersOfTheirGroupOnly) {
    const kit::Collector::Ids ids = collector::ids_of(conf_.keys, conf_.max_que_cnt);
    std::vector<collector::IpcObject> objects = {{collector::IpcKind::shm, ids.que_info_shm, conf_.keys.que_info},
                                                 {collector::IpcKind::shm, ids.svc_shm, conf_.keys.svc_shm},
                                                 {collector::IpcKind::shm, ids.ptrc_shm, conf_.keys.ptrc_shm},
                                                 {collector::IpcKind::sem, ids.svc_sem, conf_.keys.svc_sem},
                                                 {collector::IpcKind::sem, ids.ptrc_sem, conf_.keys.ptrc_sem}};
    for (int q = 0; q < conf_.max_que_cnt; ++q)
        objects.push_back({collector::IpcKind::msg, ids.msgq[q], conf_.keys.msgq + q});
    for (const collector::IpcObject& o : objects) {
        collector::IpcPerm perm{};
        ASSERT_TRUE(collector::stat_object(o, perm)) << o.id;
        EXPECT_EQ(perm.mode, 0660u) << o.key;
        EXPECT_EQ(perm.gid, group_) << o.key;
    }
    // They are the agent's to keep for its successor: no manifest lists them for removal.
    EXPECT_NE(access((kit::manifest_dir() + "/" + std::to_string(agent_)).c_str(), F_OK), 0);
    if (geteuid() != 0) GTEST_SKIP() << "only root runs a process as another user";
    // The objects a process of user 65534 could attach to, in the group or not.
    auto reached = [&](bool member) {
        const pid_t pid = fork();
        if (pid == 0) {
            const gid_t groups[] = {group_};
            if (setgroups(member ? 1 : 0, groups) != 0 || setgid(65534) != 0 || setuid(65534) != 0) _exit(255);
            int n = 0;
            for (const collector::IpcObject& o : objects) {
                const int id = o.kind == collector::IpcKind::shm   ? shmget(o.key, 0, kIpcPerm)
                               : o.kind == collector::IpcKind::sem ? semget(o.key, 0, kIpcPerm)
                                                                   : msgget(o.key, kIpcPerm);
                n += id == o.id && (o.kind != collector::IpcKind::shm || shmat(id, nullptr, 0) != (void*)-1);
            }
            _exit(n);
        }
        return exit_status(pid);
    };
    EXPECT_EQ(reached(true), static_cast<int>(objects.size()));
    EXPECT_EQ(reached(false), 0);
}

TEST_F(Agent, SwitchesChangeWhatTheNextCallSends) {
    auto switched = [] { return event("SET-GID", "9002", "switch"); };
    std::string out, err;
    EXPECT_LT(switched(), 99);
    EXPECT_EQ(agent({"set", "log_flag_set=SEBCIXQ"}, &out), 0);
    EXPECT_EQ(out, "log_flag_set=SEBCIXQ capture=off call_trc_depth=10 call_trc_limit=0 dbio_trc_limit=0 "
                   "sql_trc_limit=0 svc_filtering=0 services=0\n");
    EXPECT_EQ(switched(), VARNIX_RC_CLASS_OFF);
    // A bad word changes nothing, not even the good word before it.
    EXPECT_EQ(agent({"set", "capture=on", "log_flag_set=SEVZ"}, &out, &err), 1);
    EXPECT_NE(err.find("set log_flag_set=SEVZ: letters of SEVBCIXQ, or -; nothing was changed"), std::string::npos);
    EXPECT_EQ(agent({"set", "log_flag_set=SEVBCIXQ"}, &out), 0);
    EXPECT_NE(out.find("capture=off"), std::string::npos);
    EXPECT_LT(switched(), 99);

    ServiceCall listed, other;
    listed.gid = other.gid = "SET-GID";
    listed.svc_id = "LISTED_SVC";
    other.svc_id = "OTHER_SVC";
    // Writes the service file NAME and has the agent load it; the agent's status.
    auto load = [&](const char* name, const std::string& text, const char* also = "svc_filtering=2") {
        EXPECT_TRUE(kit::write_file(dir_ + name, text));
        return agent({"set", also, "services=" + dir_ + name}, &out, &err);
    };
    EXPECT_EQ(load("/bad-services", "LISTED_SVC SZ 5 0 0 0\n"), 1);
    EXPECT_NE(err.find("bad-services:1: flags are letters of SEVBCIQ, or -"), std::string::npos);
    EXPECT_EQ(load("/services", "# id flags depth limits\nLISTED_SVC SE 5 0 0 0\n"), 0);
    EXPECT_NE(out.find("svc_filtering=2 services=1"), std::string::npos);
    EXPECT_EQ(call(TRAN_START, other), VARNIX_RC_FILTERED);
    EXPECT_EQ(call(TRAN_END, other), VARNIX_RC_FILTERED);
    EXPECT_LT(call(TRAN_START, listed), 99);
    EXPECT_EQ(call_start("not_traced"), VARNIX_RC_FILTERED);  // C is not among the service's letters
    EXPECT_LT(call(TRAN_END, listed), 99);

    // A reload keeps the entry of a service listed before and after, changed in place.
    const auto* svc = static_cast<const SVC_HASH_TBL*>(shmat(shmget(conf_.keys.svc_shm, 0, 0), nullptr, SHM_RDONLY));
    ASSERT_NE(svc, reinterpret_cast<void*>(-1));
    auto entry_of = [svc](std::string id) -> const SVC_HASH* {
        id.resize(16, ' ');
        for (uint32_t i = 0; i < svc->svc_used_stk.cnt; ++i)
            if (std::memcmp(svc->entry[svc->svc_used_stk.idx[i]].svc_id, id.data(), 16) == 0)
                return &svc->entry[svc->svc_used_stk.idx[i]];
        return nullptr;
    };
    const SVC_HASH* before = entry_of("LISTED_SVC");
    EXPECT_EQ(load("/services", "OTHER_SVC S 1 0 0 0\nLISTED_SVC SEC 7 0 0 0\n"), 0);
    EXPECT_NE(out.find("services=2"), std::string::npos);
    EXPECT_EQ(entry_of("LISTED_SVC"), before);
    EXPECT_EQ(before->call_trc_depth, 7);
    EXPECT_EQ(load("/services", "LISTED_SVC SEC 7 0 0 0\n"), 0);
    EXPECT_EQ(entry_of("LISTED_SVC"), before);
    EXPECT_EQ(entry_of("OTHER_SVC"), nullptr);
    EXPECT_EQ(call(TRAN_START, other), VARNIX_RC_FILTERED);
    EXPECT_EQ(svc->svc_cnt, 1u);
    EXPECT_EQ(svc->svc_used_stk.cnt + svc->svc_free_stk.cnt, static_cast<uint32_t>(VARNIX_TBL_ENTRIES));
    shmdt(svc);
    EXPECT_EQ(agent({"set", "svc_filtering=0"}), 0);
}

// The numbers that follow `word` at the start of the lines of `text` that hold `also`.
std::vector<long> numbers_after(const std::string& text, const std::string& word, const std::string& also = "") {
    std::vector<long> found;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (line.rfind(word, 0) == 0 && line.find(also) != std::string::npos)
            found.push_back(std::atol(line.c_str() + word.size()));
    return found;
}

// Walks every chain; each entry number reachable, or -1 for a broken chain.
int chained_entries(const PTRC_HASH_TBL& t, std::bitset<VARNIX_TBL_ENTRIES>& seen) {
    int n = 0;
    for (int32_t head : t.hash_idx)
        for (int32_t e = head, prev = -1; e != -1; prev = e, e = t.entry[e].next) {
            if (e < 0 || e >= VARNIX_TBL_ENTRIES || seen[e] || t.entry[e].prev != prev) return -1;
            seen[e] = true;
            ++n;
        }
    return n;
}

// The process-thread table, attached for reading and writing, and its semaphore set.
struct Table {
    explicit Table(const kit::Keys& k)
        : t(static_cast<PTRC_HASH_TBL*>(shmat(shmget(k.ptrc_shm, 0, 0), nullptr, 0))), sem(semget(k.ptrc_sem, 0, 0)) {}
    ~Table() { shmdt(t); }
    bool ok() const { return t != reinterpret_cast<void*>(-1) && sem >= 0; }
    // Takes (-1) or gives back (+1) the table's lock, as the library does.
    bool lock(short op) const {
        sembuf b{VARNIX_PTRC_SEM_LOCK, op, SEM_UNDO};
        return semop(sem, &b, 1) == 0;
    }
    int registered(pid_t pid) const {
        int n = 0;
        for (uint32_t i = 0; i < t->used_stk.cnt; ++i) n += t->entry[t->used_stk.idx[i]].pid == pid;
        return n;
    }
    bool on_free(uint32_t n) const {
        for (uint32_t i = 0; i < t->free_stk.cnt; ++i)
            if (t->free_stk.idx[i] == n) return true;
        return false;
    }
    // Under the lock: every number on exactly one stack, the used ones chained.
    void expect_sound() const {
        ASSERT_TRUE(lock(-1));
        std::bitset<VARNIX_TBL_ENTRIES> chained, used, listed;
        EXPECT_EQ(chained_entries(*t, chained), static_cast<int>(t->used_stk.cnt));
        EXPECT_EQ(t->used_cnt, t->used_stk.cnt);
        EXPECT_EQ(t->free_stk.cnt + t->used_stk.cnt, static_cast<uint32_t>(VARNIX_TBL_ENTRIES));
        for (uint32_t i = 0; i < t->used_stk.cnt; ++i) used[t->used_stk.idx[i]] = true;
        for (uint32_t i = 0; i < t->free_stk.cnt; ++i) listed[t->free_stk.idx[i]] = true;
        EXPECT_EQ((listed | used).count(), static_cast<size_t>(VARNIX_TBL_ENTRIES));
        EXPECT_EQ(chained, used);
        EXPECT_TRUE(lock(1));
    }
    PTRC_HASH_TBL* t;
    int sem;
};

TEST_F(Agent, TopShowsAServiceInFlightAndAKilledProcessIsReclaimed) {
    const Table tbl(conf_.keys);
    ASSERT_TRUE(tbl.ok());
    PTRC_HASH_TBL* w = tbl.t;
    const pid_t child = spawn({TRACED_CHILD, "hold"}, dir_ + "/child.out", "/dev/null");
    ASSERT_TRUE(wait_for([&] { return read_file(dir_ + "/child.out").find("holding") != std::string::npos; }));
    EXPECT_EQ(tbl.registered(child), 2);  // its process context and its main thread

    std::string top;
    EXPECT_EQ(agent({"top", "--once"}, &top), 0);
    char pid_col[40];
    std::snprintf(pid_col, sizeof pid_col, "\n%8d  traced_child", child);
    EXPECT_NE(top.find(pid_col), std::string::npos) << top;
    EXPECT_NE(top.find("HOLD-GID                          HOLD_SVC\n"), std::string::npos) << top;
    // Refreshed into a file, the views follow one another without screen-control codes.
    const std::string views = dir_ + "/top.out";
    const pid_t refreshing = spawn({VARNIX_AGENT, "top", "-c", cfg()}, views, "/dev/null");
    EXPECT_TRUE(wait_for([&] { return read_file(views).find("\n\nvarnix-agent top ") != std::string::npos; }));
    ASSERT_EQ(kill(refreshing, SIGTERM), 0);
    ASSERT_EQ(waitpid(refreshing, nullptr, 0), refreshing);
    EXPECT_EQ(read_file(views).find('\033'), std::string::npos);

    // An entry registered under this live process's pid whose owner token
    // nobody holds: the pid says nothing, it goes like the killed child's.
    const int mine = tbl.registered(getpid());
    ASSERT_TRUE(tbl.lock(-1));
    const uint32_t unheld = w->free_stk.idx[--w->free_stk.cnt];
    PTRC_HASH& e = w->entry[unheld];
    std::memset(&e, 0, sizeof e);
    e.pidx = unheld;
    e.prev = e.next = -1;
    int32_t* link = &w->hash_idx[0];  // appended to the first chain
    for (; *link != -1; link = &w->entry[*link].next) e.prev = *link;
    *link = static_cast<int32_t>(unheld);
    e.pid = getpid();
    e.ptrc_state = VARNIX_PTRC_REGISTERED;
    w->used_stk.idx[w->used_stk.cnt++] = unheld;
    ++w->used_cnt;
    ASSERT_TRUE(tbl.lock(1));

    ASSERT_EQ(kill(child, SIGKILL), 0);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_TRUE(wait_for([&] { return tbl.registered(child) == 0 && w->entry[unheld].ptrc_state == 0; }));
    EXPECT_EQ(tbl.registered(getpid()), mine);  // the entries this process registered itself stay
    tbl.expect_sound();
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // their runtimes hold memory of their own
    // After traced runs and reclaims the agent has touched a few pages of the
    // 603 MB table: about 11 MB resident in all.
    const std::string status = read_file("/proc/" + std::to_string(agent_) + "/status");
    const std::vector<long> rss = numbers_after(status, "VmRSS:");
    ASSERT_EQ(rss.size(), 1u) << status;
    EXPECT_LT(rss[0], 64 * 1024) << "kB";
#endif
}

// A traced process in a pid namespace of its own: its pid means nothing here.
// Entries dropped between the free stack and the used stack by processes
// killed there, linked or not, with their owner token or without, come back.
TEST_F(Agent, EntriesStayWhileTheirHolderLivesInAnyPidNamespaceAndLostOnesComeBack) {
    const Table tbl(conf_.keys);
    ASSERT_TRUE(tbl.ok());
    const std::string out = dir_ + "/ns_child.out";
    const pid_t ns = spawn({"/usr/bin/unshare", "-p", "-f", "--kill-child", TRACED_CHILD, "hold"}, out, out);
    bool holding = false, ended = false;
    wait_for([&] {
        holding = read_file(out).find("holding") != std::string::npos;
        ended = !holding && waitpid(ns, nullptr, WNOHANG) == ns;
        return holding || ended;
    });
    if (!holding) {
        if (!ended && kill(ns, SIGKILL) == 0) waitpid(ns, nullptr, 0);
        GTEST_SKIP() << "no traced process in a new pid namespace here (unshare -p -f needs root): " << read_file(out);
    }
    EXPECT_EQ(tbl.registered(1), 2);  // pid 1 in its namespace

    // Children that die holding the table's lock right after taking an entry;
    // the entry's number.
    auto drop_entry = [&](bool token_and_link) -> uint32_t {
        int fd[2];
        if (pipe(fd) != 0) return VARNIX_TBL_ENTRIES;
        const pid_t pid = fork();
        if (pid == 0) {
            PTRC_HASH_TBL& t = *tbl.t;
            if (!tbl.lock(-1)) _exit(1);
            const uint32_t n = t.free_stk.idx[--t.free_stk.cnt];
            sembuf up{static_cast<unsigned short>(VARNIX_PTRC_SEM_OWNER(n)), 1, SEM_UNDO};
            if (token_and_link) {
                if (semop(tbl.sem, &up, 1) != 0) _exit(1);
                PTRC_HASH& e = t.entry[n];
                e.ptrc_state = VARNIX_PTRC_REGISTERED;
                e.pidx = n, e.hidx = 0, e.next = -1, e.prev = -1;
                int32_t* link = &t.hash_idx[0];
                for (; *link != -1; link = &t.entry[*link].next) e.prev = *link;
                *link = static_cast<int32_t>(n);
            }
            _exit(write(fd[1], &n, sizeof n) == sizeof n ? 0 : 1);  // the kernel gives back what it held
        }
        close(fd[1]);
        uint32_t n = VARNIX_TBL_ENTRIES;
        if (pid < 0 || read(fd[0], &n, sizeof n) != sizeof n || exit_status(pid) != 0) n = VARNIX_TBL_ENTRIES;
        close(fd[0]);
        return n;
    };
    const uint32_t dropped[] = {drop_entry(false), drop_entry(true)};
    ASSERT_LT(std::max(dropped[0], dropped[1]), static_cast<uint32_t>(VARNIX_TBL_ENTRIES));
    EXPECT_TRUE(wait_for([&] { return tbl.on_free(dropped[0]) && tbl.on_free(dropped[1]); }));
    // The pass that found them looked at the namespace's entries too.
    EXPECT_EQ(tbl.registered(1), 2);
    tbl.expect_sound();

    ASSERT_EQ(kill(ns, SIGKILL), 0);  // and the kernel kills its child
    ASSERT_EQ(waitpid(ns, nullptr, 0), ns);
    EXPECT_TRUE(wait_for([&] { return tbl.registered(1) == 0; }));
    tbl.expect_sound();
}

bool queue_number(int rc) { return rc >= 0 && rc < VARNIX_MAX_QUE_CNT; }

TEST_F(Agent, AKilledAgentsSuccessorTakesItsObjectsOverWhileTracedProcessesGoOn) {
    const std::string held = dir_ + "/held.out";
    const pid_t child = spawn({TRACED_CHILD, "hold"}, held, "/dev/null");
    ASSERT_TRUE(wait_for([&] { return read_file(held).find("holding") != std::string::npos; }));
    const std::string before = read_file(dir_ + "/out.jsonl");
    ASSERT_EQ(kill(agent_, SIGKILL), 0);
    ASSERT_EQ(waitpid(agent_, nullptr, 0), agent_);
    agent_ = -1;
    ASSERT_TRUE(queue_number(event("QUEUED-GID", "9005", "while no agent runs")));
    // As an agent killed during its stop leaves them: sending off, the queues
    // closed; and a queue open to everybody, as an older configuration had it.
    auto* qi = static_cast<TRAN_LOGF_QUE_INFO*>(shmat(shmget(conf_.keys.que_info, 0, 0), nullptr, 0));
    ASSERT_NE(qi, reinterpret_cast<void*>(-1));
    qi->log_flag_set = 0;
    ASSERT_EQ(shmdt(qi), 0);
    const int last_queue = msgget(conf_.keys.msgq + conf_.max_que_cnt - 1, 0);
    msqid_ds ds{};
    ASSERT_EQ(msgctl(last_queue, IPC_STAT, &ds), 0);
    ds.msg_qbytes = 0;
    ds.msg_perm.mode = 0666;
    ASSERT_EQ(msgctl(last_queue, IPC_SET, &ds), 0);

    ASSERT_TRUE(start_agent("/agent2.err"));
    char perm_line[160];
    std::snprintf(perm_line, sizeof perm_line,
                  "varnix-agent: message queue id %d (key 0x%08x) had mode 0666 and group %u: now mode 0660 and group "
                  "%u\n",
                  last_queue, static_cast<unsigned>(conf_.keys.msgq + conf_.max_que_cnt - 1), group_, group_);
    EXPECT_NE(read_file(err_).find(perm_line), std::string::npos) << read_file(err_);
    EXPECT_NE(read_file(err_).find("varnix-agent: took over the objects of " + cfg() + " that a previous agent left"),
              std::string::npos);
    EXPECT_NE(read_file(err_).find("sending switched on again (log_flag_set=SEVBCIXQ)"), std::string::npos);
    ASSERT_EQ(msgctl(last_queue, IPC_STAT, &ds), 0);
    EXPECT_GT(ds.msg_qbytes, 0u);
    EXPECT_EQ(ds.msg_perm.mode & 0777, 0660u);
    EXPECT_EQ(records_of("QUEUED-GID", "V").size(), 1u);
    EXPECT_EQ(read_file(dir_ + "/out.jsonl").rfind(before, 0), 0u);  // appended to

    // A second agent, and a cleanup, are refused while this one runs.
    std::string err;
    const std::string runs = "the agent with pid " + std::to_string(agent_) + " runs with the objects of " + cfg();
    EXPECT_EQ(agent({"start"}, nullptr, &err), 1);
    EXPECT_EQ(err, "varnix-agent: refusing to start: " + runs + "\n");
    EXPECT_EQ(agent({"cleanup"}, nullptr, &err), 1);
    EXPECT_EQ(err, "varnix-agent: refusing to clean up: " + runs + "\n");

    // The child goes on: a new thread of it registers and sends, a switch reaches it, top lists it.
    auto new_thread = [&] {
        const size_t n = numbers_after(read_file(held), "thread ").size();
        EXPECT_EQ(kill(child, SIGUSR1), 0);
        EXPECT_TRUE(wait_for([&] { return numbers_after(read_file(held), "thread ").size() > n; }));
        return numbers_after(read_file(held), "thread ").back();
    };
    EXPECT_TRUE(queue_number(static_cast<int>(new_thread())));
    const std::vector<Json> sent = records_of("NEW-THREAD-GID", "V");
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0]["pid"], child);
    EXPECT_EQ(agent({"set", "log_flag_set=SEBCIXQ"}), 0);
    EXPECT_EQ(new_thread(), VARNIX_RC_CLASS_OFF);
    EXPECT_EQ(agent({"set", "log_flag_set=SEVBCIXQ"}), 0);
    std::string top;
    EXPECT_EQ(agent({"top", "--once"}, &top), 0);
    char pid_col[40];
    std::snprintf(pid_col, sizeof pid_col, "\n%8d  traced_child", child);
    EXPECT_NE(top.find(pid_col), std::string::npos) << top;
    ASSERT_EQ(kill(child, SIGKILL), 0);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
}

TEST_F(Agent, ObjectsThatDoNotMatchAreRefusedAndCleanupRemovesThem) {
    kit::AgentConfig other = conf_;
    other.keys = other_keys();
    const std::string other_cfg = dir_ + "/other.cfg";
    ASSERT_TRUE(kit::write_file(other_cfg, kit::config_text(other)));
    const int shm = shmget(other.keys.que_info, 100, IPC_CREAT | IPC_EXCL | 0600);
    ASSERT_GE(shm, 0);
    auto hex = [](key_t key) {
        char text[16];
        std::snprintf(text, sizeof text, "0x%08x", static_cast<unsigned>(key));  // as ipcs shows keys
        return std::string(text);
    };
    const std::string block = "shared memory TRAN_LOGF_QUE_INFO (key " + hex(other.keys.que_info) + ")";
    std::string out, err;
    EXPECT_EQ(agent({"start"}, nullptr, &err, other_cfg), 1);
    EXPECT_NE(err.find("varnix-agent: refusing to start: no agent runs with the objects of " + other_cfg +
                       ", and they cannot be taken over:\n  " + block + ": 100 bytes, not 248\n  shared memory "
                       "SVC_HASH_TBL (key " + hex(other.keys.svc_shm) + "): missing\n"),
              std::string::npos)
        << err;
    EXPECT_NE(err.find("nothing was changed; `varnix-agent cleanup -c " + other_cfg + "` removes them"),
              std::string::npos);
    EXPECT_EQ(shmget(other.keys.que_info, 0, 0), shm);
    EXPECT_EQ(agent({"cleanup"}, &out, nullptr, other_cfg), 0);
    EXPECT_EQ(out, "varnix-agent: removed " + block + ", id " + std::to_string(shm) + "\n");
    EXPECT_LT(shmget(other.keys.que_info, 0, 0), 0);
}

TEST_F(Agent, BadInputIsRefusedOrThrottledAndAStopUnderLoadLosesNoAcceptedRecord) {
    const std::string good = kit::config_text(conf_);
    auto refused = [&](const std::string& from, const std::string& to) {
        std::string text = good;
        text.replace(text.find(from), from.size(), to);
        kit::write_file(cfg(), text);
        std::string e;
        EXPECT_EQ(agent({"start"}, nullptr, &e), 1);
        return e.substr(e.find("varnix-agent:"));
    };
    const std::string where = "varnix-agent: " + cfg() + ": key ";
    EXPECT_EQ(refused("QUE_CNT = 4\n", ""), where + "QUE_CNT (section TRAN_LOGF, token 1) is missing\n");
    EXPECT_EQ(refused("PTRC_HASH_TBL_SEMKEY = ", "PTRC_HASH_TBL_SEMKEY = x"),
              where + "PTRC_HASH_TBL_SEMKEY (section IPC_SEMAPHORE, token 1) is not a number\n");
    EXPECT_EQ(refused("TRAN_LOGF_MSGQKEY = " + std::to_string(conf_.keys.msgq), "TRAN_LOGF_MSGQKEY = 0"),
              where + "TRAN_LOGF_MSGQKEY (section IPC_MESSAGE_QUE, token 1) is 0\n");
    // Keys and record classes that nothing reads, and the objects' access.
    const std::string agent_section = "[VARNIX_AGENT]\n";
    const long line = std::count(good.begin(), good.begin() + good.find(agent_section), '\n') + 2;
    EXPECT_EQ(refused(agent_section, agent_section + "OTLP_ULR = x\nIPC_MODE = 0660\n"),
              "varnix-agent: " + cfg() + ":" + std::to_string(line) +
                  ": unknown key OTLP_ULR in section VARNIX_AGENT\n");
    EXPECT_EQ(refused("TRAN_LOG_FLAG_SET = SEVBCIXQ", "TRAN_LOG_FLAG_SET = SEVZQWZ"),
              where + "TRAN_LOG_FLAG_SET (section TRAN_LOGF): unknown record classes ZW (letters of SEVBCIXQ, or -)\n");
    EXPECT_EQ(refused(agent_section, agent_section + "IPC_MODE = 0460\n"),
              where + "IPC_MODE (section VARNIX_AGENT): 0460 leaves the agent without read and write (0600)\n");
    EXPECT_EQ(refused("IPC_GROUP = ", "IPC_GROUP = no-such-group-x #"),
              where + "IPC_GROUP (section VARNIX_AGENT): no-such-group-x is no group of this host\n");
    ASSERT_TRUE(kit::write_file(cfg(), good));
    // Help and the version on standard output; a command that does not exist named on standard error.
    std::string out, said;
    EXPECT_EQ(agent({"--help"}, &out, &said), 0);
    EXPECT_TRUE(out.starts_with("usage: varnix-agent COMMAND") && said.empty()) << out << said;
    EXPECT_EQ(agent({"--version"}, &out), 0);
    EXPECT_EQ(out, std::string("varnix-agent ") + VARNIX_VERSION + "\n");
    EXPECT_EQ(agent({"stat"}, &out, &said), 2);
    EXPECT_TRUE(out.empty() && said.starts_with("varnix-agent: unknown command 'stat'\nusage: varnix-agent")) << said;

    // A flood of malformed records: a line a second at most, which counts them.
    auto malformed = [](const std::string& text) {
        return numbers_after(text, "varnix-agent: ", " malformed records skipped, the last from queue ");
    };
    auto sum = [](const std::vector<long>& v) { return std::accumulate(v.begin(), v.end(), 0L); };
    const size_t lines = malformed(read_file(err_)).size();
    const long total = sum(malformed(read_file(err_))) + 300;
    const int q = msgget(conf_.keys.msgq, 0);
    const TRAN_LOG_MSG junk{1, {}};
    for (int i = 0; i < 300; ++i) ASSERT_EQ(msgsnd(q, &junk, 10, 0), 0);
    EXPECT_TRUE(wait_for([&] { return sum(malformed(read_file(err_))) == total; }));
    EXPECT_LE(malformed(read_file(err_)).size(), lines + 30);

    // Threads send as fast as they can until the stop switches sending off
    // (refusals by full queues, and waits for a context cut short by the load,
    // are no records): every record a queue accepted is written.
    std::atomic<long> accepted{0}, switched_off{0};
    {
        std::atomic<bool> quit{false};
        ThreadGroup senders(8, [&](int t) {
            const std::string gid = "LOAD-GID-" + std::to_string(t);  // GIDs pick the queues
            for (int rc = 0; rc != VARNIX_RC_CLASS_OFF && !quit;) {
                rc = event(gid.c_str(), "9006", "under load");
                accepted += queue_number(rc);
                switched_off += rc == VARNIX_RC_CLASS_OFF;
            }
        });
        const struct Quit {
            std::atomic<bool>& quit;
            ~Quit() { quit = true; }  // before the senders are joined, should the stop fail to end them
        } quit_at_end{quit};
        ASSERT_TRUE(wait_for([&] { return accepted > 2000; }));
        ASSERT_EQ(kill(agent_, SIGTERM), 0);
        EXPECT_EQ(exit_status(agent_), 0);
        agent_ = -1;
        EXPECT_TRUE(wait_for([&] { return switched_off == 8; }));
    }
    long written = 0;
    for (const Json& r : records()) written += r.value("gid", "").starts_with("LOAD-GID-");
    EXPECT_EQ(written, accepted);
    const std::string err = read_file(err_);
    EXPECT_NE(err.find(" records received, " + std::to_string(total) + " malformed skipped, 0 lines not written"),
              std::string::npos)
        << err;
    EXPECT_NE(err.find("s; the final drain took "), std::string::npos);
    EXPECT_NE(err.find("every object removed"), std::string::npos);
    const kit::Keys& k = conf_.keys;
    for (key_t key : {k.que_info, k.svc_shm, k.ptrc_shm}) EXPECT_LT(shmget(key, 0, 0), 0) << key;
    for (key_t key : {k.svc_sem, k.ptrc_sem}) EXPECT_LT(semget(key, 0, 0), 0) << key;
    for (int i = 0; i < conf_.max_que_cnt; ++i) EXPECT_LT(msgget(k.msgq + i, 0), 0) << i;
}

}  // namespace
}  // namespace varnix::test

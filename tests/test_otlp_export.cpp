// OTLP export against a receiver that decodes with OpenTelemetry's own code:
// the exporter on its own (a 503 retried; the receiver down, then up), and
// varnix-agent exporting real traced processes (the demo's transfer as one
// trace, one GID across two processes, a killed process's open service).
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <map>
#include <set>

#include "collector/otlp/exporter.h"
#include "kit/config_file.h"
#include "support/otlp_receiver.h"
#include "support/temp_dir.h"

namespace varnix::test {
namespace {

using agent::ExportConfig;
using agent::OtlpExporter;
using Json = nlohmann::json;

std::string hex(const uint8_t* b, size_t n) {
    std::string s;
    for (size_t i = 0; i < n; ++i) s += "0123456789abcdef"[b[i] >> 4], s += "0123456789abcdef"[b[i] & 15];
    return s;
}

agent::SpanData a_span(agent::SpanIds& ids, const std::shared_ptr<const agent::Resource>& res) {
    agent::SpanData s;
    s.trace = agent::trace_id_of_gid("EXPORT-GID");
    s.span = ids.next();
    s.name = "EXPORTED";
    s.start_us = 1'700'000'000'000'000;
    s.end_us = s.start_us + 1;
    s.resource = res;
    return s;
}

ExportConfig quick(const std::string& url) {
    ExportConfig c;
    c.url = url;
    c.batch_delay_us = 50'000;
    c.backoff_first_us = 10'000;
    c.backoff_max_us = 200'000;
    return c;
}

// A port nothing listens on, for now.
int free_port() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    const bool ok = bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
                    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0;
    close(fd);
    return ok ? ntohs(a.sin_port) : -1;
}

TEST(OtlpExporter, RetriesA503AndKeepsDrainingWhileTheReceiverIsDown) {
    TempDir dir;
    agent::SpanIds ids;
    auto res = std::make_shared<agent::Resource>();
    res->pid = 1;
    res->service_name = "svc";
    {
        OtlpReceiver refusing(dir.path(), 2);
        ASSERT_TRUE(refusing.ok());
        OtlpExporter e(quick(refusing.url()));
        ASSERT_TRUE(e.start());
        e.span(a_span(ids, res));
        EXPECT_TRUE(wait_for([&] { return e.counts().spans_sent == 1; }));
        EXPECT_EQ(refusing.got("span").size(), 1u);
        std::vector<int> statuses;
        for (const Json& r : refusing.got("request")) statuses.push_back(r["status"]);
        EXPECT_EQ(statuses, (std::vector<int>{503, 503, 200}));
        EXPECT_EQ(e.counts().retries, 2u);
    }
    // Down: every span is taken at once, what the buffer cannot hold is
    // counted; up: the buffered ones arrive, and later ones too.
    const int port = free_port();
    ExportConfig c = quick("http://127.0.0.1:" + std::to_string(port));
    c.buffer_bytes = 64 * 1024;
    OtlpExporter e(c);
    ASSERT_TRUE(e.start());
    constexpr int kOffered = 2000;
    for (int i = 0; i < kOffered; ++i) e.span(a_span(ids, res));
    const uint64_t dropped = e.counts().dropped;
    EXPECT_GT(dropped, 0u);
    EXPECT_LT(dropped, static_cast<uint64_t>(kOffered));
    OtlpReceiver late(dir.path(), 0, port);
    ASSERT_TRUE(late.ok());
    EXPECT_TRUE(wait_for([&] { return e.counts().spans_sent == kOffered - dropped; }));
    e.span(a_span(ids, res));
    // Span ids, not lines: a request that timed out on a loaded machine may
    // have arrived all the same before its retry.
    EXPECT_TRUE(wait_for([&] {
        std::set<std::string> arrived;
        for (const Json& s : late.got("span")) arrived.insert(s["span_id"]);
        return arrived.size() == kOffered - dropped + 1;
    }));
    EXPECT_GT(e.counts().retries, 0u);
    EXPECT_EQ(e.counts().failed, 0u);
}

// One agent for the binary (its table is 603 MB), exporting to one receiver.
class AgentExport : public testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(tmp_.ok());
        const std::string dir = tmp_.path();
        receiver_ = std::make_unique<OtlpReceiver>(dir);
        ASSERT_TRUE(receiver_->ok());
        std::filesystem::create_directories(dir + "/agt/log/proc/libvarnix");
        kit::AgentConfig conf;
        conf.keys = kit::keys_for_pid(getpid());
        conf.log_home = "log";
        conf.tong_log_home = dir;
        conf.dbio_trc_limit = 100'000;  // as the demo runs
        ASSERT_TRUE(kit::write_file(dir + "/agt/varnix.cfg", kit::config_text(conf)));
        ASSERT_EQ(setenv("TRAN_HOME", dir.c_str(), 1) | setenv("TRAN_AGT_HOME", (dir + "/agt").c_str(), 1) |
                      setenv("TRAN_AGT_CFG_FILE", (dir + "/agt/varnix.cfg").c_str(), 1),
                  0);
        agent_ = spawn({VARNIX_AGENT, "start", "--out", dir + "/out.jsonl", "--otlp", receiver_->url()}, "/dev/null",
                       dir + "/agent.err");
        ASSERT_TRUE(wait_for([&] { return read_file(dir + "/agent.err").find("running") != std::string::npos; }));
    }

    static void TearDownTestSuite() {
        EXPECT_TRUE(agent_ > 0 && kill(agent_, SIGTERM) == 0 && exit_status(agent_) == 0);
        receiver_.reset();
    }

    // Runs a traced program to its end; its pid.
    static pid_t run(std::vector<std::string> argv) {
        const pid_t pid = spawn(std::move(argv), tmp_.file("child.out"), tmp_.file("child.err"));
        EXPECT_EQ(exit_status(pid), 0) << read_file(tmp_.file("child.out"));
        return pid;
    }

    // The spans of process `pid`, by name, once `n` have arrived.
    static std::multimap<std::string, Json> spans_of(pid_t pid, size_t n) {
        std::multimap<std::string, Json> by_name;
        wait_for([&] {
            by_name.clear();
            for (Json& s : receiver_->got("span"))
                if (s["resource"]["process.pid"] == pid) by_name.emplace(s["name"], s);
            return by_name.size() >= n;
        });
        return by_name;
    }

    static inline TempDir tmp_;
    static inline std::unique_ptr<OtlpReceiver> receiver_;
    static inline pid_t agent_ = -1;
};

// Its time range holds the other's.
bool within(const Json& outer, const Json& inner) {
    auto ns = [](const Json& j, const char* k) { return std::stoll(j[k].get<std::string>()); };
    return ns(outer, "start") <= ns(inner, "start") && ns(inner, "end") <= ns(outer, "end");
}

TEST_F(AgentExport, TheDemoTransferArrivesAsOneTraceWithItsTree) {
    const pid_t bank = run({BANK_SERVER});
    std::multimap<std::string, Json> got = spans_of(bank, 7);
    ASSERT_EQ(got.size(), 7u);
    for (const char* name : {"ACCT_TRANSFER", "ACCT_DEBIT", "ACCT_CREDIT", "validate_transfer", "DBIO_select_balance",
                             "DBIO_update_balance", "check_daily_limit"})
        ASSERT_EQ(got.count(name), 1u) << name;
    auto span = [&](const char* name) { return got.find(name)->second; };
    const std::string trace = hex(agent::trace_id_of_gid("BANK-20261125-0000000000000001").b, 16);
    char host[256] = {};
    ASSERT_EQ(gethostname(host, sizeof host - 1), 0);
    for (const auto& [name, s] : got) {
        EXPECT_EQ(s["trace_id"], trace) << name;
        EXPECT_EQ(s["resource"]["service.name"], "bank_server");
        EXPECT_EQ(s["resource"]["host.name"], host);
        EXPECT_EQ(s["resource"]["telemetry.sdk.name"], "varnix-agent");
        EXPECT_EQ(s["scope"]["name"], "varnix-agent");
    }
    const Json transfer = span("ACCT_TRANSFER"), debit = span("ACCT_DEBIT"), credit = span("ACCT_CREDIT"),
               update = span("DBIO_update_balance"), limit = span("check_daily_limit");
    // parent, kind (1 internal, 2 server, 3 client), status code (2 error)
    const std::vector<std::tuple<Json, Json, int, int>> tree = {
        {transfer, Json(), 2, 0},         {debit, transfer, 1, 0}, {credit, transfer, 1, 2},
        {span("validate_transfer"), transfer, 1, 0}, {update, debit, 3, 0},  {limit, credit, 1, 2},
        {span("DBIO_select_balance"), debit, 3, 0},  // below its limit: a span of its statement
    };
    for (const auto& [s, parent, kind, code] : tree) {
        EXPECT_EQ(s["parent_span_id"], parent.is_null() ? "" : parent["span_id"]) << s["name"];
        EXPECT_EQ(s["kind"], kind) << s["name"];
        EXPECT_EQ(s["status"]["code"], code) << s["name"];
        EXPECT_TRUE(parent.is_null() || within(parent, s)) << s["name"];
    }
    EXPECT_EQ(credit["status"]["message"], "[E1001] 일일 이체 한도를 초과했습니다");
    EXPECT_EQ(limit["status"]["message"], "return code -1");
    EXPECT_EQ(limit["attributes"]["varnix.rc"], -1);
    EXPECT_GE(std::stoll(update["end"].get<std::string>()) - std::stoll(update["start"].get<std::string>()),
              1'500'000'000);
    const std::string statements = update["attributes"]["db.statement"];
    EXPECT_NE(statements.find("FOR UPDATE\nUPDATE account SET balance"), std::string::npos) << statements;
    EXPECT_EQ(update["attributes"]["code.function"], "DBIO_update_balance");
    EXPECT_EQ(span("DBIO_select_balance")["attributes"]["db.statement"],
              "SELECT balance FROM account WHERE acct_no = :1");
    EXPECT_EQ(transfer["attributes"]["varnix.chnl_typ_cd"], "WEB");
    EXPECT_EQ(credit["events"][0]["name"], "service_error");
    EXPECT_EQ(credit["events"][1]["attributes"]["varnix.evt_no"], "1105");

    // The timeline names the same trace and spans.
    EXPECT_TRUE(wait_for([&] { return read_file(tmp_.file("out.jsonl")).find("ACCT_TRANSFER") != std::string::npos; }));
    std::ifstream in(tmp_.file("out.jsonl"));
    int lines = 0;
    for (std::string line; std::getline(in, line);) {
        const Json r = Json::parse(line);
        if (r.value("pid", 0) != bank || r.value("gid", "") != "BANK-20261125-0000000000000001") continue;
        ++lines;
        EXPECT_EQ(r["trace_id"], trace);
        if (r["record"] == "service_end" && r["svc_id"] == "ACCT_DEBIT") {
            EXPECT_EQ(r["span_id"], debit["span_id"]);
            EXPECT_GE(r["duration_us"], 1'500'000);
        }
    }
    EXPECT_GE(lines, 10);
    bool started = false;  // the process-start event, outside any service
    for (const Json& l : receiver_->got("log"))
        started |= l["resource"]["process.pid"] == bank && l["attributes"]["varnix.evt_no"] == "1508";
    EXPECT_TRUE(started);
}

TEST_F(AgentExport, OneGidInTwoProcessesIsOneTraceAndAKilledProcessEndsItsService) {
    const pid_t first = run({TRACED_CHILD, "service", "TWO-PROCESS-GID"});
    const pid_t second = run({TRACED_CHILD, "service", "TWO-PROCESS-GID"});
    const std::string trace = hex(agent::trace_id_of_gid("TWO-PROCESS-GID").b, 16);
    for (pid_t pid : {first, second}) {
        std::multimap<std::string, Json> got = spans_of(pid, 1);
        ASSERT_EQ(got.count("CHILD_SVC"), 1u);
        EXPECT_EQ(got.find("CHILD_SVC")->second["trace_id"], trace);
        EXPECT_EQ(got.find("CHILD_SVC")->second["kind"], 2);
    }
    const pid_t holder = spawn({TRACED_CHILD, "hold"}, tmp_.file("hold.out"), "/dev/null");
    ASSERT_TRUE(wait_for([&] { return read_file(tmp_.file("hold.out")).find("holding") != std::string::npos; }));
    ASSERT_EQ(kill(holder, SIGKILL), 0);
    ASSERT_EQ(waitpid(holder, nullptr, 0), holder);
    std::multimap<std::string, Json> got = spans_of(holder, 1);
    ASSERT_EQ(got.count("HOLD_SVC"), 1u);
    EXPECT_EQ(got.find("HOLD_SVC")->second["status"]["code"], 2);
    EXPECT_EQ(got.find("HOLD_SVC")->second["status"]["message"], "the process ended before the service did");
}

}  // namespace
}  // namespace varnix::test

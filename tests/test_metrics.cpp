// The agent's metrics: the exposition (escaping, buckets, the cap on service
// ids), the endpoint under good and bad requests and idle connections, and
// a real Prometheus scraping an agent while traced processes run.
#include <poll.h>
#include <sys/msg.h>
#include <sys/shm.h>

#include <gtest/gtest.h>

#include <filesystem>

#include "collector/host_objects.h"
#include "collector/metrics_server.h"
#include "kit/collector.h"
#include "kit/config_file.h"
#include "support/in_child.h"
#include "support/prometheus.h"
#include "support/temp_dir.h"

namespace varnix::test {
namespace {

using agent::Metrics;
using agent::MetricsServer;

void expect_lines(const std::string& text, const std::vector<std::string>& lines) {
    for (const std::string& line : lines) EXPECT_NE(text.find(line), std::string::npos) << line;
}

TEST(Metrics, ExpositionEscapesLabelsBucketsInclusivelyAndCapsServiceIds) {
    Metrics m(1);
    auto service = [&](char type, const std::string& svc_id, int64_t us = -1) {
        agent::Record r;
        r.log_type = type;
        r.f.text("svc_id", svc_id);
        agent::SpanRef ref;
        ref.duration_us = us;  // -1: its start unseen, counted but not timed
        m.record(r, ref);
    };
    const std::string odd = "A\"B\\C\nD", l = "{svc_id=\"A\\\"B\\\\C\\nD\"";
    for (int64_t us : {1'000, 1'001, -1}) service('2', odd, us);  // 1000 us is within le="0.001"
    service('9', odd);
    for (size_t i = 1; i < Metrics::kMaxServiceIds + 5; ++i) service('2', std::to_string(i));  // past the cap: one
    service('9', odd);                                                                         // a known id: its own
    const std::string text = m.render(), bucket = "varnix_service_duration_seconds_bucket" + l;
    size_t series = 0;
    for (size_t at = 0; (at = text.find("\nvarnix_service_ends_total{", at + 1)) != std::string::npos;) ++series;
    EXPECT_EQ(series, Metrics::kMaxServiceIds + 1);
    expect_lines(text, {"# TYPE varnix_service_duration_seconds histogram\n", "varnix_service_ends_total" + l + "} 3\n",
                        "varnix_service_errors_total" + l + "} 2\n", bucket + ",le=\"0.001\"} 1\n",
                        bucket + ",le=\"0.005\"} 2\n", bucket + ",le=\"+Inf\"} 2\n",
                        "varnix_service_duration_seconds_sum" + l + "} 0.002001\n",
                        "varnix_service_duration_seconds_count" + l + "} 2\n",
                        "varnix_service_ends_total{svc_id=\"(other)\"} 5\n"});
}

TEST(MetricsServer, AnswersScrapesRefusesBadRequestsAndDropsIdleConnections) {
    TempDir dir;  // the option wins over the configuration's key
    ASSERT_TRUE(kit::write_file(dir.file("cfg"), "[VARNIX_AGENT]\nOTLP_URL = x\nMETRICS_ADDRESS = [::1]:9464\n"));
    EXPECT_EQ(agent::metrics_address("", dir.file("cfg").c_str()), "[::1]:9464");
    EXPECT_EQ(agent::metrics_address("127.0.0.1:1", dir.file("cfg").c_str()), "127.0.0.1:1");

    Metrics m(1);
    MetricsServer server(m), second(m);
    testing::internal::CaptureStderr();
    ASSERT_TRUE(server.start("127.0.0.1:0"));
    const std::string at = "127.0.0.1:" + std::to_string(server.port());
    EXPECT_FALSE(second.start(at));
    EXPECT_FALSE(second.start("127.0.0.1"));
    const std::string err = testing::internal::GetCapturedStderr();
    expect_lines(err, {"serving metrics on http://" + at + "/metrics\n",
                       "cannot serve metrics on " + at + ": Address already in use\n",
                       "the metrics address 127.0.0.1 is not HOST:PORT or [IPv6]:PORT\n"});

    const std::string url = "http://" + at + "/metrics";
    auto curl = [&](const std::string& args) { return output_of("curl -s -i " + args + " " + url); };
    m.received(0);
    const std::string scrape = curl(""), post = curl("-d x");
    EXPECT_TRUE(scrape.starts_with("HTTP/1.1 200 ")) << scrape;
    EXPECT_NE(scrape.find("\r\nContent-Type: text/plain; version=0.0.4"), std::string::npos);
    EXPECT_TRUE(scrape.ends_with("\r\n\r\n" + m.render()));
    EXPECT_TRUE(post.starts_with("HTTP/1.1 405 ") && post.find("\r\nAllow: GET, HEAD\r\n") != std::string::npos);
    EXPECT_TRUE(curl("-H Host:").starts_with("HTTP/1.1 400 "));  // HTTP/1.1 without a host
    EXPECT_TRUE(output_of("curl -s -i " + url + "x").starts_with("HTTP/1.1 404 "));
    EXPECT_TRUE(curl("-H X:" + std::string(64 * 1024, 'x')).starts_with("HTTP/1.1 4"));

    // Silent connections take every place: a scrape waits until the server
    // drops them (after kIdleSecs), then it is answered.
    std::vector<int> idle;
    for (unsigned i = 0; i < MetricsServer::kConnections; ++i) idle.push_back(local_socket(server.port()));
    EXPECT_EQ(curl("-o /dev/null -w %{http_code} -m 1"), "000");  // nothing within 1 s
    EXPECT_EQ(curl("-o /dev/null -w %{http_code} -m 30"), "200");
    for (int fd : idle) {
        pollfd p{fd, POLLIN, 0};
        char c;
        EXPECT_TRUE(poll(&p, 1, 30'000) == 1 && recv(fd, &c, 1, 0) == 0);  // dropped by the server
        close(fd);
    }
}

// An agent on this process's keys (its table is 603 MB: one for the binary)
// serving metrics where its configuration says, with export on to a
// receiver that is down (nothing listens on port 1), scraped by Prometheus.
TEST(AgentMetrics, PrometheusScrapesTheFiguresOfATracedRun) {
    TempDir tmp;
    const std::string dir = tmp.path(), cfg = dir + "/agt/varnix.cfg";
    std::filesystem::create_directories(dir + "/agt/log/proc/libvarnix");
    kit::AgentConfig conf;
    conf.keys = kit::keys_for_pid(getpid());
    conf.log_home = "log";
    conf.tong_log_home = dir;
    ASSERT_TRUE(kit::write_file(cfg, kit::config_text(conf) + "METRICS_ADDRESS = 127.0.0.1:0\n"));
    ASSERT_EQ(setenv("TRAN_HOME", dir.c_str(), 1) | setenv("TRAN_AGT_HOME", (dir + "/agt").c_str(), 1) |
                  setenv("TRAN_AGT_CFG_FILE", cfg.c_str(), 1),
              0);
    struct Stop {  // the agent removes its objects; what a failed one left goes by key
        pid_t pid;
        const kit::AgentConfig& conf;
        ~Stop() {
            EXPECT_TRUE(kill(pid, SIGTERM) == 0 && exit_status(pid) == 0);
            collector::remove_ids(collector::ids_of(conf.keys, conf.max_que_cnt));
        }
    } stop{spawn({VARNIX_AGENT, "start", "--out", "/dev/null", "--otlp", "http://127.0.0.1:1"}, "/dev/null",
                 dir + "/agent.err"),
           conf};
    ASSERT_TRUE(wait_for([&] { return read_file(dir + "/agent.err").find("running") != std::string::npos; }));
    const std::string err = read_file(dir + "/agent.err"), serving = "serving metrics on http://127.0.0.1:";
    ASSERT_NE(err.find(serving), std::string::npos) << err;
    const int port = std::atoi(&err[err.find(serving) + serving.size()]);
    const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/metrics";
    Prometheus prometheus(dir, "127.0.0.1:" + std::to_string(port));

    ASSERT_EQ(exit_status(spawn({BANK_SERVER}, dir + "/bank.out", "/dev/null")), 0);
    const pid_t holder = spawn({TRACED_CHILD, "hold"}, dir + "/hold.out", "/dev/null");
    ASSERT_TRUE(wait_for([&] { return read_file(dir + "/hold.out").find("holding") != std::string::npos; }));
    const collector::HostObjects::Ids ids = collector::ids_of(conf.keys, conf.max_que_cnt);
    const TRAN_LOG_MSG junk{1, "short"};
    ASSERT_EQ(msgsnd(ids.msgq[2], &junk, 10, 0), 0);
    auto* qi = static_cast<TRAN_LOGF_QUE_INFO*>(shmat(ids.que_info_shm, nullptr, 0));
    ASSERT_NE(qi, reinterpret_cast<void*>(-1));
    __atomic_store_n(&qi->msgq_fail_cnt[1], 7u, __ATOMIC_RELAXED);  // as refused sends count
    shmdt(qi);

    const std::string debit = "{svc_id=\"ACCT_DEBIT\"", credit = "{svc_id=\"ACCT_CREDIT\"}";
    EXPECT_EQ(prometheus.missed({
        {"up{job=\"varnix\"}", 1},  // each scrape parsed
        {"varnix_service_ends_total{svc_id=\"ACCT_TRANSFER\"}", 1},
        {"varnix_service_ends_total" + credit, 1},
        {"varnix_service_errors_total" + credit, 1},
        {"varnix_service_errors_total" + debit + "}", 0},
        {"varnix_service_duration_seconds_bucket" + debit + ",le=\"1\"}", 0},  // 1.5 s of SQL
        {"varnix_service_duration_seconds_count" + debit + "}", 1},
        {"varnix_service_duration_seconds_sum" + debit + "} > bool 1.5", 1},
        {"sum(varnix_records_received_total) > bool 10", 1},
        {"varnix_records_malformed_total{queue=\"2\"}", 1},
        {"sum(varnix_records_malformed_total)", 1},
        {"varnix_queue_sends_refused_total{queue=\"1\"}", 7},
        {"varnix_services_in_flight", 1},
        {"varnix_threads_registered >= bool 1", 1},
        {"varnix_otlp_dropped_total", 0},
    }), "") << output_of("curl -s " + url);
    EXPECT_EQ(std::system(("curl -s " + url + " | promtool check metrics").c_str()), 0);  // Prometheus's linter
    ASSERT_TRUE(kill(holder, SIGKILL) == 0 && waitpid(holder, nullptr, 0) == holder);
    EXPECT_EQ(prometheus.missed({{"varnix_services_in_flight", 0}}), "");
}

}  // namespace
}  // namespace varnix::test

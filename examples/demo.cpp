// varnix-demo: a collector and a traced process in one program.  It creates
// the collector's IPC objects from a configuration file, initializes the
// tracing library against them, shows what the library attached and which
// record classes the collector lets through, and removes everything again.
#include <sys/shm.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "collector/kit.h"
#include "core/gvar.h"
#include "varnix.h"

namespace {

using namespace varnix;

std::string make_home() {
    char tmpl[] = "/tmp/varnix-demo-XXXXXX";
    if (!mkdtemp(tmpl)) return "";
    std::string home = tmpl;
    std::error_code ec;
    std::filesystem::create_directories(home + "/agt/log/proc/libvarnix", ec);
    std::filesystem::create_directories(home + "/tong", ec);
    return ec ? "" : home;
}

void show_attachments() {
    std::printf("library attached:\n");
    std::printf("  TRAN_LOGF_QUE_INFO shmid %d: qcnt %d, magic 0x%08x, log_flag_set 0x%02x\n", gvar.que_info_shmid,
                *gvar.qcnt, *gvar.magic_code, *gvar.log_flag_set);
    std::printf("  SVC_HASH_TBL shmid %d (semaphore %d), PTRC_HASH_TBL shmid %d (semaphore %d, %u free entries)\n",
                gvar.svc_hash_shmid, gvar.svc_hash_semid, gvar.ptrc_hash_shmid, gvar.ptrc_hash_semid,
                gvar.ptrc_hash_tbl->free_stk.cnt);
    std::printf("  message queues:");
    for (int q = 0; q < VARNIX_MAX_QUE_CNT && gvar.msgq_id[q] >= 0; ++q) std::printf(" #%d=%d", q, gvar.msgq_id[q]);
    std::printf("\n  process %s (pid %d) on %s, diagnostic log under %s/proc/libvarnix\n", gvar.proc_nm, gvar.pid,
                gvar.host_name, log_home_dir);
}

void show_switches(TRAN_LOGF_QUE_INFO& q) {
    gvar.init_mark = 1111;  // as the start entry marks a ready library
    std::printf("record classes with log_flag_set \"SEV\" (0x%02x):", get_log_flag_set("SEV"));
    q.log_flag_set = get_log_flag_set("SEV");
    for (char t : {'1', '9', 'V', 'B', 'C', 'I', 'X', 'Q'}) std::printf(" %c=%d", t, check_gvar(t));
    std::printf("\n");
    gvar.init_mark = 0;
}

}  // namespace

int main() {
    std::string home = make_home();
    if (home.empty()) {
        std::fprintf(stderr, "cannot create a demo directory under /tmp\n");
        return 1;
    }
    kit::ConfigSpec spec;
    spec.keys = kit::keys_for_pid(getpid());
    spec.log_home = "log";
    spec.tong_log_home = home + "/tong";
    std::string cfg = home + "/agt/varnix.cfg";
    kit::Collector collector;
    if (!kit::write_file(cfg, kit::config_text(spec)) || collector.create(cfg.c_str()) != 0) return 1;
    std::printf("collector created its objects from %s (keys from 0x%x)\n", cfg.c_str(),
                static_cast<unsigned>(spec.keys.que_info));

    setenv("TRAN_HOME", home.c_str(), 1);
    setenv("TRAN_AGT_HOME", (home + "/agt").c_str(), 1);
    setenv("TRAN_AGT_CFG_FILE", cfg.c_str(), 1);
    int rc = tran_init();
    std::printf("tran_init() = %d\n", rc);
    if (rc == 0) {
        show_attachments();
        show_switches(*collector.que_info());
    }
    for (void* addr : {static_cast<void*>(gvar.que_info), static_cast<void*>(gvar.svc_hash_tbl),
                       static_cast<void*>(gvar.ptrc_hash_tbl)})
        if (addr) shmdt(addr);
    collector.remove();
    std::error_code ec;
    std::filesystem::remove_all(home, ec);
    std::printf("collector removed every object it created\n");
    return rc == 0 ? 0 : 1;
}

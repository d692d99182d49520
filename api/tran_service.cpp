// The exported service entries: their arguments packed for the shared
// service code.
#include "api/service.h"
#include "core/entry_gate.h"
#include "varnix.h"

using varnix::ServiceArgs;
using varnix::Text;

#define VARNIX_SERVICE_HEAD                                                                                        \
    tid, {cls_cd, cls_cd_len}, {dtl_cd, dtl_cd_len}, {gid, gid_len}, {svc_id, svc_id_len}, {pid_str, pid_str_len}, \
        {date_str, date_str_len}, {time_str, time_str_len}
#define VARNIX_TELEGRAM_HEAD                                                                                 \
    {tmsg_flag, tmsg_flag_len}, {trsc_grco_br, trsc_grco_br_len}, {chnl_typ_cd, chnl_typ_cd_len},           \
        {recv_svc_cd, recv_svc_cd_len}, {scrn_id, scrn_id_len}, {emp_no, emp_no_len},                      \
        {proc_rslt_dv_cd, proc_rslt_dv_cd_len}, {std_tmsg_err_cd, std_tmsg_err_cd_len}
#define VARNIX_TELEGRAM_TAIL                                                                                      \
    {std_tmsg_len, std_tmsg_len_len}, {ipv6_adr, ipv6_adr_len}, {fst_trms_sys_cd, fst_trms_sys_cd_len},          \
        {trms_sys_cd, trms_sys_cd_len}, {rqst_rsps_dv_cd, rqst_rsps_dv_cd_len},                                  \
        {trsc_sync_dv_cd, trsc_sync_dv_cd_len}, {rslt_recv_svc_cd, rslt_recv_svc_cd_len},                        \
        {eai_intf_id, eai_intf_id_len}, {dsbl_sys_cd, dsbl_sys_cd_len}, {otsd_inst_cd, otsd_inst_cd_len},       \
        {otsd_biz_cd, otsd_biz_cd_len}, {fst_trms_mdcl_ctt, fst_trms_mdcl_ctt_len}, {opt_flag1, opt_flag1_len}, \
        {opt_flag2, opt_flag2_len}
#define VARNIX_PT_TAIL                                                                                            \
    {pt_param1, pt_param1_len}, {pt_param2, pt_param2_len}, {pt_param3, pt_param3_len}, {pt_param4, pt_param4_len}, \
        {pt_param5, pt_param5_len}

extern "C" {

int32_t TRAN_START(VARNIX_SERVICE_PARAMS) {
    const varnix::EntryGate gate;
    const Text tail[] = {VARNIX_TELEGRAM_HEAD, VARNIX_TELEGRAM_TAIL};
    return varnix::service_start(varnix::kStandardService, ServiceArgs{VARNIX_SERVICE_HEAD, tail});
}

int32_t TRAN_END(VARNIX_SERVICE_PARAMS) {
    const varnix::EntryGate gate;
    const Text tail[] = {VARNIX_TELEGRAM_HEAD, VARNIX_TELEGRAM_TAIL};
    return varnix::service_end(varnix::kStandardService, ServiceArgs{VARNIX_SERVICE_HEAD, tail});
}

int32_t TRAN_ERROR(VARNIX_SERVICE_PARAMS) {
    const varnix::EntryGate gate;
    const Text tail[] = {VARNIX_TELEGRAM_HEAD, VARNIX_TELEGRAM_TAIL};
    return varnix::service_error(ServiceArgs{VARNIX_SERVICE_HEAD, tail});
}

int32_t TRAN_PT_START(VARNIX_PT_SERVICE_PARAMS) {
    const varnix::EntryGate gate;
    const Text tail[] = {VARNIX_TELEGRAM_HEAD, VARNIX_PT_TAIL};
    return varnix::service_start(varnix::kProcessTraceService, ServiceArgs{VARNIX_SERVICE_HEAD, tail});
}

int32_t TRAN_PT_END(VARNIX_PT_SERVICE_PARAMS) {
    const varnix::EntryGate gate;
    const Text tail[] = {VARNIX_TELEGRAM_HEAD, VARNIX_PT_TAIL};
    return varnix::service_end(varnix::kProcessTraceService, ServiceArgs{VARNIX_SERVICE_HEAD, tail});
}

}  // extern "C"

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
#define VARNIX_FIVE_TAIL(p) {p##1, p##1_len}, {p##2, p##2_len}, {p##3, p##3_len}, {p##4, p##4_len}, {p##5, p##5_len}
#define VARNIX_PT_TAIL VARNIX_FIVE_TAIL(pt_param)
#define VARNIX_WEB_TAIL VARNIX_FIVE_TAIL(web_field)

// Every service entry: counted in at the gate, its arguments packed, handed
// to `call` after the leading arguments given.
#define VARNIX_SERVICE_ENTRY(name, params, tail_cols, call, ...)                                  \
    int32_t name(params) {                                                                        \
        const varnix::EntryGate gate;                                                             \
        const Text tail[] = {VARNIX_TELEGRAM_HEAD, tail_cols};                                    \
        return varnix::call(__VA_ARGS__, ServiceArgs{VARNIX_SERVICE_HEAD, tail});                 \
    }

extern "C" {

VARNIX_SERVICE_ENTRY(TRAN_START, VARNIX_SERVICE_PARAMS, VARNIX_TELEGRAM_TAIL, service_start, varnix::kStandardService)
VARNIX_SERVICE_ENTRY(TRAN_END, VARNIX_SERVICE_PARAMS, VARNIX_TELEGRAM_TAIL, service_end, varnix::kStandardService)
VARNIX_SERVICE_ENTRY(TRAN_ERROR, VARNIX_SERVICE_PARAMS, VARNIX_TELEGRAM_TAIL, service_error, varnix::kStandardService)
VARNIX_SERVICE_ENTRY(TRAN_PT_START, VARNIX_PT_SERVICE_PARAMS, VARNIX_PT_TAIL, service_start,
                     varnix::kProcessTraceService)
VARNIX_SERVICE_ENTRY(TRAN_PT_END, VARNIX_PT_SERVICE_PARAMS, VARNIX_PT_TAIL, service_end, varnix::kProcessTraceService)
VARNIX_SERVICE_ENTRY(TRAN_CLH_START, VARNIX_SERVICE_PARAMS, VARNIX_TELEGRAM_TAIL, front_end_service,
                     varnix::kClientHandlerService, '1')
VARNIX_SERVICE_ENTRY(TRAN_CLH_END, VARNIX_SERVICE_PARAMS, VARNIX_TELEGRAM_TAIL, front_end_service,
                     varnix::kClientHandlerService, '2')
VARNIX_SERVICE_ENTRY(TRAN_CLH_ERROR, VARNIX_SERVICE_PARAMS, VARNIX_TELEGRAM_TAIL, front_end_service,
                     varnix::kClientHandlerService, '9')
VARNIX_SERVICE_ENTRY(TRAN_WEB_START, VARNIX_WEB_SERVICE_PARAMS, VARNIX_WEB_TAIL, front_end_service,
                     varnix::kWebService, '1')
VARNIX_SERVICE_ENTRY(TRAN_WEB_END, VARNIX_WEB_SERVICE_PARAMS, VARNIX_WEB_TAIL, front_end_service, varnix::kWebService,
                     '2')

int32_t TRAN_FEP_START(int32_t tid, const char*, int32_t, const char*, int32_t, const void*) {
    const varnix::EntryGate gate;
    return varnix::front_end_pin('1', tid);
}

int32_t TRAN_FEP_END(int32_t tid, const char*, int32_t, const char*, int32_t, const void*) {
    const varnix::EntryGate gate;
    return varnix::front_end_pin('2', tid);
}

}  // extern "C"

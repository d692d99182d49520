// The standard telegram's field table: {offset, length} of each field.
#include "varnix.h"

extern "C" {

int32_t _STD_TMSG_LEN[2] = {0, 8};
int32_t _GLBL_ID[2] = {9, 32};
int32_t _IPV6_ADR[2] = {41, 39};
int32_t _FST_TRMS_SYS_CD[2] = {93, 3};
int32_t _TRMS_SYS_CD[2] = {96, 3};
int32_t _RQST_RSPS_DV_CD[2] = {104, 1};
int32_t _TRSC_SYNC_DV_CD[2] = {105, 1};
int32_t _RECV_SVC_CD[2] = {132, 12};
int32_t _RSLT_RECV_SVC_CD[2] = {144, 12};
int32_t _EAI_INTF_ID[2] = {156, 16};
int32_t _PROC_RSLT_DV_CD[2] = {188, 1};
int32_t _DSBL_SYS_CD[2] = {192, 3};
int32_t _STD_TMSG_ERR_CD[2] = {195, 9};
int32_t _CHNL_TYP_CD[2] = {209, 3};
int32_t _EMP_NO[2] = {302, 7};
int32_t _TRSC_GRCO_CD[2] = {315, 2};
int32_t _TRSC_BR_NO[2] = {317, 4};
int32_t _SCRN_ID[2] = {366, 9};
int32_t _OTSD_INST_CD[2] = {401, 4};
int32_t _OTSD_BIZ_CD[2] = {405, 3};
int32_t _FST_TRMS_MDCL_CTT[2] = {435, 39};
int32_t _STD_TMSG_DAT_KIND_CD[2] = {512, 2};
// The error-message part: a count and its items, then the message count and
// messages (code and text), then the additional-message count and messages.
// The places of all but the first count follow from the counts.
int32_t _ERR_ORGN_ITEM_REPT_TCNT[2] = {561, 2};
int32_t _ERR_ORGN_ITEM_NM[2] = {-1, 20};
int32_t _MSG_INFO_REPT_TCNT[2] = {-1, 2};
int32_t _MSG_CD[2] = {-1, 9};
int32_t _RSPS_MSG_CTT[2] = {-1, 300};
int32_t _ADTN_MSG_REPT_TCNT[2] = {-1, 2};
int32_t _ADTN_MSG[2] = {-1, 200};

}  // extern "C"

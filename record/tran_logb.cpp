// Dispatch of a finished record to the collector queue its transaction's GID
// picks, so that every record of one transaction keeps its order.  Never
// waits: a full or removed queue drops the record and counts it; a removed
// queue is taken up again once the collector re-creates it.
#include <cstring>

#include "context/hash.h"
#include "core/gvar.h"
#include "core/ipc.h"
#include "core/status.h"
#include "record/record.h"

namespace varnix {
namespace {

// The record types that go to the collector.
bool sent_type(char log_type) {
    switch (log_type) {
        case '1':
        case '2':
        case '9':
        case 'B':
        case 'C':
        case 'E':
        case 'I':
        case 'Q':
        case 'V':
        case 'X': return true;
        default: return false;
    }
}

}  // namespace

int tran_logb(MTR_CXT_VAR& cxt, TRAN_LOG_MSG& rec) {
    const char* body = rec.text + sizeof(uint32_t);
    // A thread sends run after run of records of one transaction: the hash
    // of its GID slice is kept with the slice it was taken of.
    const char* slice = body + hdr::kGid + write_qidx_idx_gid_rng_pos;
    const int len = write_qidx_idx_gid_rng_siz;
    if (len != cxt.gid_key_len || std::memcmp(slice, cxt.gid_key, static_cast<size_t>(len)) != 0) {
        std::memcpy(cxt.gid_key, slice, static_cast<size_t>(len));  // at most the 32-byte GID field
        cxt.gid_key_len = len;
        cxt.gid_key_hash = get_hash_code(slice, len);
    }
    const uint32_t hash = cxt.gid_key_hash;
    // The mask comes from shared memory; 15 keeps it inside the queue-id array
    // whatever the collector wrote (ids past MAX_QUE_CNT are -1 and refuse).
    int q = static_cast<int>(hash & shm_load(gvar.que_mask) & (VARNIX_MAX_QUE_CNT - 1));
    if (cxt.ptrc) cxt.ptrc->qidx = static_cast<uint8_t>(q);
    if (!sent_type(body[hdr::kLogType])) return VARNIX_RC_BAD_TYPE;
    if (send_to_queue(q, &rec, sizeof rec.text) == 0) return q;
    __atomic_fetch_add(&gvar.msgq_fail_cnt[q], 1u, __ATOMIC_RELAXED);
    return VARNIX_RC_SEND_FAIL;
}

}  // namespace varnix

// The deferred-queue payload of one full-message record (slot kind 1).  The
// capture side allocates the record and puts this into the queue; from then on
// the buffer belongs to the writer thread, which frees it in every case.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tong/deffered_que.h"

namespace varnix {

struct TongSlot {
    int32_t len;  // whole record: 117-byte header, telegram, line feed
    char* buf;    // from malloc
};

static_assert(offsetof(TongSlot, len) == 0, "TongSlot.len");
static_assert(offsetof(TongSlot, buf) == 8, "TongSlot.buf");
static_assert(sizeof(TongSlot) == kDeferredPayload, "TongSlot fills a slot payload");

}  // namespace varnix

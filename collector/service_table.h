// Listing services in the service table, as the collector does: the table
// that traced processes read without a lock to find a service's own
// record-class switches and call-trace limits.
#pragma once

#include <cstdint>
#include <string>

#include "varnix_collector.h"

namespace varnix::collector {

struct ServiceListing {
    std::string svc_id;  // up to 16 characters
    uint8_t flags = 0xFF;  // VARNIX_FLAG_*
    int32_t call_trc_depth = 0;
    int64_t call_trc_limit = 0, dbio_trc_limit = 0, sql_trc_limit = 0;
};

// Takes a free entry, fills it and appends it to the chain of its id's
// bucket, complete before it becomes reachable; null when the table is full.
// The caller keeps other writers out (the agent holds the table's semaphore).
SVC_HASH* add_service(SVC_HASH_TBL& tbl, const ServiceListing& listing);

}  // namespace varnix::collector

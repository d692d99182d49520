// The service table file that `varnix-agent set services=FILE` loads.  One
// service a line, six whitespace-separated columns:
//
//   # service id    flags     call_trc_depth  call_trc_limit  dbio_trc_limit  sql_trc_limit
//   ACCT_TRANSFER   SEVBCIQ   10              0               0               200000
//   ACCT_INQUIRY    SE        5               100000          50000           200000
//
// The service id (at most 16 characters) is matched as the library pads it;
// the flags are the record-class letters the service keeps (S start and end,
// E errors, V events, B DBIO, C BIZCALL, I information, Q SQL; "-" for none);
// the limits are microseconds.  Blank lines and lines starting with '#' are
// skipped.  The file replaces the whole table.
#pragma once

#include <string>
#include <vector>

#include "collector/service_table.h"

namespace varnix::agent {

// The listings of the file; false, with "FILE:LINE: reason" on standard
// error, for a file that cannot be read or a line that is not a listing.
bool read_service_file(const std::string& path, std::vector<collector::ServiceListing>& out);

// Makes the table list exactly these services while traced processes read it
// without a lock: entries of services listed before and after are updated in
// place, new ones linked once complete, the others unlinked.  A service that
// stays listed is found at every moment.  The caller holds the semaphore.
void load_services(SVC_HASH_TBL& tbl, const std::vector<collector::ServiceListing>& listings);

}  // namespace varnix::agent

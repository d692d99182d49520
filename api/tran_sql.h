// SQL statements of the open DBIO call: kept in the thread's process-thread
// entry while the call runs, sent as SQL text records when it finishes.
#pragma once

#include "context/mtr_cxt.h"

namespace varnix {

// Sends every kept statement of the DBIO call open at the innermost level of
// `cxt` that ran at least the entry's sql_trc_limit, split into pieces that
// fit the record.  The result of the last send (0 when nothing was sent), or
// 99..126 when SQL records are refused or no DBIO call is open.  The kept
// statements stay counted: the call finish clears sql_rec_cnt afterwards.
int tran_sql_stmt_close(MTR_CXT_VAR& cxt);

}  // namespace varnix

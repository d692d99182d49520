// Full-message log writer: the background thread that appends the captured
// records of the deferred queue to the day's data file
// "<tong_log_home_dir>/tong_log_<YYYYMMDD>_<cont_nm or proc_nm>_<pid>.dat".
// The host may wait for it or cancel it with th_join_thread/th_cancel_thread
// (include/varnix.h); the library itself does neither.
#pragma once

namespace varnix {

// Starts the writer for the current initialization.  A writer left over from
// an earlier one is stopped and joined first, so only one ever consumes the
// queue; if it does not end within 200 ms none is started.  0, or the error
// (ETIMEDOUT for that case) that prevented the start.
int start_th_job();
// Stops the running writer and joins it, waiting 200 ms at most.  0 when no
// writer is left (the queue is then nobody's), ETIMEDOUT when it still runs,
// else the pthread error.  Silent: it may run before the log is open.
int stop_th_job();
// The diagnostic line for a non-zero result of stop_th_job.
void report_stop_failure(int rc);
// Ends the writer's idle step at once, so that it sees a stop or a newer
// start without waiting it out.
void wake_th_job();
// In a forked child: no writer, fresh locks, no data file.
void reset_th_job_after_fork();

}  // namespace varnix

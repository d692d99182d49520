// Library start and stop.
#pragma once

namespace varnix {

inline constexpr const char* kVersionBanner = "libvarnix v13.5(2018.05.18) for TolvoSYSTEMS Varnix UI Project";

// Detaches the thread contexts and the shared blocks and closes the log: 0,
// or the failing shmdt result.  Does nothing unless initialized.
int tran_destroy();
// The writer thread's share in following a collector that created its
// objects anew, between records: a look once a second, and the detaching of
// a replaced process-thread table once no caller can still use it.  Never
// waits.
void follow_collector();
// The start banner on standard output.
void print_logo();

}  // namespace varnix

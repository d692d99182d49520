// Library start and stop.
#pragma once

namespace varnix {

inline constexpr const char* kVersionBanner = "libvarnix v13.5(2018.05.18) for TolvoSYSTEMS Varnix UI Project";

// Detaches the thread contexts and the shared blocks and closes the log: 0,
// or the failing shmdt result.  Does nothing unless initialized.
int tran_destroy();
// The start banner on standard output.
void print_logo();

}  // namespace varnix

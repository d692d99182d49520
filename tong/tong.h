// Full-message capture: one request or response telegram becomes one record
// of the writer's data file (tong/th_job.h) and goes to the deferred queue.
// The native entry is save_tong_log4c (include/varnix.h); the Java binding
// builds its records with the same pieces.
#pragma once

#include <cstdint>

namespace varnix {

inline constexpr int32_t kTongMinLen = 512;  // native callers' shortest telegram
inline constexpr int kTongHeaderLen = 117;   // then the telegram, then a line feed
inline constexpr int kTongGidLen = 30;

// The direction flag of an API type: 'S' for a start, 'F' for an end, 'U'
// for anything else.
char get_sf_flag(int api_type);

// True when the library is up and the collector has capture switched on.
// Only inside an entry gate.
bool tong_capture_on();

// A record for a telegram of n bytes, null when n is out of range or there
// is no memory.  The caller copies the telegram to rec + kTongHeaderLen and
// then calls finish_tong_record.
char* new_tong_record(int32_t n);
// Writes the header and the closing line feed around the telegram in `rec`.
// The global ID is read at gid_offset of the telegram (the standard
// telegram's is the _GLBL_ID entry's offset, read at the call); what the
// telegram does not cover is blank.
void finish_tong_record(char* rec, int32_t n, int api_type, int64_t gid_offset);

// Which entry captured: the queue-full line differs between the two.
enum class TongCaller { kNative, kJava };
// Hands the record to the writer, which frees it.  A full queue drops it and
// frees it here; the drop is counted in nfailcount and reported at the 1st
// and every 100th.
void put_tong_record(char* rec, int32_t n, long tid, TongCaller caller);

// Empties the deferred queue, freeing the records still in it, and starts it
// afresh.  Only while no writer runs.  1, or 0 when tong_lock failed.
int reset_tong_que();
// In a forked child: a fresh tong_lock.
void reset_tong_after_fork();

}  // namespace varnix

// The common header at the start of every record body.  A thread context
// fills its fixed fields when it is made (context/mtr_cxt.cpp), the record
// layer and the entries the rest (record/record.h).
#pragma once

namespace varnix {

// Body offsets of the common header.
namespace hdr {
inline constexpr int kLogType = 0;
inline constexpr int kClsCd = 2;
inline constexpr int kDtlCd = 5;
inline constexpr int kGid = 7;
inline constexpr int kProcNm = 40;
inline constexpr int kSvcId = 56;
inline constexpr int kHostNm = 73;
inline constexpr int kPid = 138;
inline constexpr int kTid = 147;
inline constexpr int kIdx = 163;
inline constexpr int kPidx = 169;
inline constexpr int kDate = 175;
inline constexpr int kTime = 184;
inline constexpr int kEnd = 197;
}  // namespace hdr

}  // namespace varnix

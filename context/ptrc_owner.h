// Owner tokens of process-thread entries.
//
// The process that holds entry n keeps semaphore VARNIX_PTRC_SEM_OWNER(n) of
// the table's semaphore set raised by one, with SEM_UNDO: the kernel lowers it
// again when the process ends, however it ends and whatever its pid
// namespace, so the collector tells a live holder from a gone one by the
// value alone.  Tokens are taken and given back only under the table
// semaphore, around registration and release, and that semaphore also guards
// this process's record of the tokens it holds.  The record is kept for one
// process and one set: a forked child, which inherits no undo from its
// parent, and a set created anew both start with none.  Owner semaphores are
// only ever raised and lowered, never set: setting one would drop the undo of
// every process that holds it.
#pragma once

#include <cstdint>

#include "varnix_collector.h"

namespace varnix {

// Takes this process's token on entry n of the table whose semaphore set is
// `semid`, once however
// often the entry is handed to it.  False when the set refused it: the entry
// must then not be handed out, since the collector would take it for one
// whose holder is gone.  A set without owner semaphores (made by an older
// collector) or one already removed is no refusal: the entry goes out without
// a token.
bool take_owner_token(int semid, uint32_t n);

// This process holds its token on entry n.
bool holds_owner_token(int semid, uint32_t n);
// Some process keeps the owner semaphore of entry n raised; also true when
// the set cannot tell (it has no owner semaphores, or is gone).
bool owner_raised(int semid, uint32_t n);

// Gives back this process's token on the entry, if it holds one.  An entry
// outside the attached table (none, or one of a table since replaced) holds
// no token of its set.
void give_back_owner_token(const PTRC_HASH* e);

}  // namespace varnix

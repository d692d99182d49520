// What a thread keeps for itself between entries, in one thread-local block
// so that an entry finds all of it from one address: only the thread itself
// reads and writes it.  A forked child's thread keeps its parent thread's
// context and settles at the gate again.
#pragma once

#include <cstdint>

namespace varnix {

struct GateCount;
struct MTR_CXT_VAR;

// A context that no thread ever holds: its stamp stays 0 (core/entry_gate.cpp).
[[gnu::visibility("hidden")]] extern MTR_CXT_VAR no_context;

// The calling thread's own context, found without the bucket: valid while
// the slot's stamp is the one it had when found.  Before any is found it is
// no_context with a stamp that context never has, so that the test needs no
// null check.
struct OwnContext {
    MTR_CXT_VAR* cxt = &no_context;
    uint64_t stamp = 1;
};

struct ThreadOwn {
    // Its entry-gate counts (core/entry_gate.h): its own once it has settled
    // and got one, else null and a stripe, the first one until it settles.
    GateCount* own_gate;
    GateCount* stripe;
    bool gate_settled;
    OwnContext context;
};
[[gnu::visibility("hidden")]] extern constinit thread_local ThreadOwn thread_own;

// The calling thread's block, its address computed here once: the compiler
// would compute a thread-local address again at each use, which in a shared
// library is a call each time.
inline ThreadOwn& own_block() {
    ThreadOwn* self = &thread_own;
    asm("" : "+r"(self));  // an opaque value from here on, kept in a register
    return *self;
}

}  // namespace varnix

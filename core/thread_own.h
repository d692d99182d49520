// What a thread keeps for itself between entries, in one thread-local block
// so that an entry finds all of it from one address: only the thread itself
// reads and writes it.  A forked child's thread keeps its parent thread's.
#pragma once

#include <cstdint>

namespace varnix {

struct GateStripe;
struct MTR_CXT_VAR;

// The calling thread's own context, found without the bucket: valid while
// the slot's stamp is the one it had when found.
struct OwnContext {
    MTR_CXT_VAR* cxt = nullptr;
    uint64_t stamp = 0;
};

struct ThreadOwn {
    GateStripe* stripe = nullptr;  // its entry-gate stripe once it has entered
    OwnContext context;
};
extern constinit thread_local ThreadOwn thread_own;

// The calling thread's block, its address computed here once: the compiler
// would compute a thread-local address again at each use, which in a shared
// library is a call each time.
inline ThreadOwn& own_block() {
    ThreadOwn* self = &thread_own;
    asm("" : "+r"(self));  // an opaque value from here on, kept in a register
    return *self;
}

}  // namespace varnix

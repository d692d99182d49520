// The tracing entries as fuzz operations: each decodes its arguments from
// the input and calls its entry once.
#pragma once

#include <cstdint>

#include "fuzz/api_args.h"

namespace varnix::fuzz {

struct ApiOp {
    int32_t (*run)(Args&);
    bool stops_tracing;  // tracing stays off until the next initialization
};

// The operation an op code selects (every code selects one).
const ApiOp& api_op(uint8_t code);

}  // namespace varnix::fuzz

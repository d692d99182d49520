// The result of a system-call wrapper together with the errno it left, so
// that one expectation checks both.
#pragma once

#include <cerrno>
#include <utility>

namespace varnix::test {

using Outcome = std::pair<int, int>;  // result, errno (0 unless the result is negative)

template <typename Call>
Outcome outcome(Call call) {
    errno = 0;
    int rc = call();
    return {rc, rc < 0 ? errno : 0};
}

constexpr Outcome ok(int rc) { return {rc, 0}; }
constexpr Outcome failed(int err) { return {-1, err}; }

}  // namespace varnix::test

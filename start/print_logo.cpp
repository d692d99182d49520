#include <array>
#include <cstdio>
#include <string_view>

#include "start/start_stop.h"

namespace varnix {
namespace {

constexpr std::array<std::string_view, 8> kLogo = {
    "#################################################################################",
    "##      V       V    AAA    RRRRRR   N     N  IIIII  X     X                   ##",
    "##      V       V   A   A   R     R  NN    N    I     X   X                    ##",
    "##       V     V   A     A  R     R  N N   N    I      X X                     ##",
    "##        V   V    AAAAAAA  RRRRRR   N  N  N    I       X                      ##",
    "##         V V     A     A  R   R    N   N N    I      X X                     ##",
    "##          V      A     A  R    RR  N    NN  IIIII  XX   XX          ver 8.0  ##",
    "#################################################################################",
};

constexpr bool all_81_wide() {
    for (std::string_view line : kLogo)
        if (line.size() != 81) return false;
    return true;
}
static_assert(all_81_wide());

}  // namespace

void print_logo() {
    for (std::string_view line : kLogo) std::puts(line.data());
    std::fflush(stdout);
}

}  // namespace varnix

// Counts that never wrap, and correct decimal rounding.
#pragma once

#include <cstdint>
#include <limits>

namespace health {

using Count = std::int64_t;

// Adds one; a count at its limit stays there.
inline void increment(Count& count) {
    count += static_cast<Count>(count < std::numeric_limits<Count>::max());
}

// `value` rounded to `decimals` (at most 6) places: correctly from its exact value, ties to the
// even digit. What has no fraction, or is not finite, is returned as it is.
double round_decimals(double value, int decimals);

}  // namespace health

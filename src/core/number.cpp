#include "core/number.hpp"

#include <array>
#include <charconv>
#include <cmath>

namespace health {

double round_decimals(double value, int decimals) {
    constexpr double kNoFraction = 0x1p52;  // no double from here up has one
    if (!(std::abs(value) < kNoFraction)) {
        return value;
    }
    std::array<char, 32> buffer{};
    // With a precision given, to_chars rounds the exact value, ties to even.
    const auto written = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value,
                                       std::chars_format::fixed, decimals);
    double rounded = value;
    std::from_chars(buffer.data(), written.ptr, rounded);
    return rounded;
}

}  // namespace health

// Timestamp text: a time in UTC as "%Y-%m-%d %H:%M:%S", the form of SQLite's CURRENT_TIMESTAMP.
#pragma once

#include <array>
#include <optional>
#include <string_view>

namespace health {

inline constexpr std::string_view kTimestampFormat = "%Y-%m-%d %H:%M:%S";

using TimestampText = std::array<char, 19>;

inline std::string_view view(const TimestampText& text) { return {text.data(), text.size()}; }

// The text of a time in epoch seconds: rounded to the nearest microsecond (ties to even), the
// rest of the second then dropped. Throws std::domain_error for a time outside the years 1 to 9999
// and for what is not a number.
TimestampText format_timestamp(double epoch);

// The epoch seconds of a timestamp text; nothing when it cannot be read as one. Reads a little
// more than format_timestamp writes: fields without leading zero, any white space in the middle.
std::optional<double> parse_timestamp(std::string_view text);

}  // namespace health

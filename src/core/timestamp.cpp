#include "core/timestamp.hpp"

#include <chrono>
#include <cmath>

#include "core/text.hpp"

namespace health {
namespace {

using std::chrono::days;
using std::chrono::floor;
using std::chrono::hh_mm_ss;
using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;
using std::chrono::sys_days;
using std::chrono::sys_seconds;
using std::chrono::year;
using std::chrono::year_month_day;

constexpr sys_seconds kFirst = sys_days{year{1} / 1 / 1};
constexpr sys_seconds kEnd = sys_days{year{10000} / 1 / 1};

bool is_digit(char character) { return '0' <= character && character <= '9'; }

// Reads fields off the front of a text; what does not fit leaves the text where it is.
class FieldReader {
public:
    explicit FieldReader(std::string_view text) : rest_(text) {}

    std::optional<int> number(std::size_t fewest, std::size_t most) {
        std::size_t length = 0;
        int value = 0;
        while (length < most && length < rest_.size() && is_digit(rest_[length])) {
            value = value * 10 + (rest_[length++] - '0');
        }
        if (length < fewest) {
            return std::nullopt;
        }
        rest_.remove_prefix(length);
        return value;
    }

    // A number of one or two digits, or, as C libraries pad days, a blank and one digit.
    std::optional<int> padded_number() { return literal(' ') ? number(1, 1) : number(1, 2); }

    bool literal(char expected) {
        if (rest_.empty() || rest_.front() != expected) {
            return false;
        }
        rest_.remove_prefix(1);
        return true;
    }

    bool white_space() {
        bool found = false;
        while (!rest_.empty()) {
            auto after = rest_;
            if (!is_white_space(take_code_point(after))) {
                break;
            }
            rest_ = after;
            found = true;
        }
        return found;
    }

    bool at_end() const { return rest_.empty(); }

private:
    std::string_view rest_;
};

std::optional<year_month_day> read_date(FieldReader& reader) {
    const auto y = reader.number(4, 4);
    if (!y || *y < 1 || !reader.literal('-')) {
        return std::nullopt;
    }
    const auto m = reader.number(1, 2);
    if (!m || !reader.literal('-')) {
        return std::nullopt;
    }
    const auto d = reader.padded_number();
    if (!d) {
        return std::nullopt;
    }
    const year_month_day date = year{*y} / *m / *d;
    return date.ok() ? std::optional(date) : std::nullopt;
}

std::optional<seconds> read_time_of_day(FieldReader& reader) {
    const auto h = reader.number(1, 2);
    if (!h || *h > 23 || !reader.literal(':')) {
        return std::nullopt;
    }
    const auto m = reader.number(1, 2);
    if (!m || *m > 59 || !reader.literal(':')) {
        return std::nullopt;
    }
    const auto s = reader.number(1, 2);
    if (!s || *s > 59) {
        return std::nullopt;
    }
    return hours{*h} + minutes{*m} + seconds{*s};
}

void write_digits(char* end, int value, int count) {
    for (; count > 0; --count, value /= 10) {
        *--end = static_cast<char>('0' + value % 10);
    }
}

}  // namespace

TimestampText format_timestamp(double epoch) {
    double whole = 0.0;
    const double microseconds = std::nearbyint(std::modf(epoch, &whole) * 1e6);
    if (microseconds < 0.0) {
        whole -= 1.0;
    } else if (microseconds >= 1e6) {
        whole += 1.0;
    }
    // Written so that not-a-number fails too.
    if (!(whole >= static_cast<double>(kFirst.time_since_epoch().count()) &&
          whole < static_cast<double>(kEnd.time_since_epoch().count()))) {
        throw UnwritableTime();
    }
    const sys_seconds time{seconds{static_cast<std::int64_t>(whole)}};
    const auto midnight = floor<days>(time);
    const year_month_day date{midnight};
    const hh_mm_ss clock{time - midnight};

    TimestampText text{'0', '0', '0', '0', '-', '0', '0', '-', '0', '0',
                       ' ', '0', '0', ':', '0', '0', ':', '0', '0'};
    write_digits(&text[4], static_cast<int>(date.year()), 4);
    write_digits(&text[7], static_cast<int>(static_cast<unsigned>(date.month())), 2);
    write_digits(&text[10], static_cast<int>(static_cast<unsigned>(date.day())), 2);
    write_digits(&text[13], static_cast<int>(clock.hours().count()), 2);
    write_digits(&text[16], static_cast<int>(clock.minutes().count()), 2);
    write_digits(text.data() + text.size(), static_cast<int>(clock.seconds().count()), 2);
    return text;
}

std::optional<double> parse_timestamp(std::string_view text) {
    FieldReader reader(text);
    const auto date = read_date(reader);
    if (!date || !reader.white_space()) {
        return std::nullopt;
    }
    const auto time_of_day = read_time_of_day(reader);
    if (!time_of_day || !reader.at_end()) {
        return std::nullopt;
    }
    const sys_seconds time = sys_days{*date} + *time_of_day;
    return static_cast<double>(time.time_since_epoch().count());
}

}  // namespace health

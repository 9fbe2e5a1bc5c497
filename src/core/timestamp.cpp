#include "core/timestamp.hpp"

#include <chrono>
#include <cmath>
#include <stdexcept>

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

// Reads fields off the front of a text. Once something does not fit it has failed.
class FieldReader {
public:
    explicit FieldReader(std::string_view text) : rest_(text) {}

    int number(std::size_t fewest, std::size_t most) {
        std::size_t length = 0;
        int value = 0;
        while (length < most && length < rest_.size() && is_digit(rest_[length])) {
            value = value * 10 + (rest_[length++] - '0');
        }
        rest_.remove_prefix(length);
        failed_ |= length < fewest;
        return value;
    }

    // A number of one or two digits, or, as C libraries pad days, a blank and one digit.
    int padded_number() {
        const bool padded = rest_.starts_with(' ');
        rest_.remove_prefix(padded ? 1 : 0);
        return padded ? number(1, 1) : number(1, 2);
    }

    void literal(char expected) {
        failed_ |= !rest_.starts_with(expected);
        rest_.remove_prefix(failed_ ? 0 : 1);
    }

    void white_space() {
        const auto before = rest_.size();
        for (auto after = rest_; !after.empty() && is_white_space(take_code_point(after));) {
            rest_ = after;
        }
        failed_ |= rest_.size() == before;
    }

    bool has_read_all() const { return !failed_ && rest_.empty(); }

private:
    std::string_view rest_;
    bool failed_ = false;
};

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
        throw std::domain_error("the time is outside the years 1 to 9999");
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
    const int y = reader.number(4, 4);
    reader.literal('-');
    const int m = reader.number(1, 2);
    reader.literal('-');
    const int d = reader.padded_number();
    reader.white_space();
    const int hour = reader.number(1, 2);
    reader.literal(':');
    const int minute = reader.number(1, 2);
    reader.literal(':');
    const int second = reader.number(1, 2);

    const year_month_day date = year{y} / m / d;
    if (!reader.has_read_all() || y < 1 || !date.ok() || hour > 23 || minute > 59 || second > 59) {
        return std::nullopt;
    }
    const sys_seconds time = sys_days{date} + hours{hour} + minutes{minute} + seconds{second};
    return static_cast<double>(time.time_since_epoch().count());
}

}  // namespace health

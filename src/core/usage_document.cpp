#include "core/usage_document.hpp"

#include <rapidjson/reader.h>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <utility>

#include "core/text.hpp"

namespace health {
namespace {

// Reading

constexpr std::array<std::string_view, 7> kMembers{"tool",  "action",      "outcome", "alias_hit",
                                                   "calls", "timed_calls", "total_ms"};
enum Member : std::size_t { kTool, kAction, kOutcome, kAliasHit, kCalls, kTimedCalls, kTotal };

template <class Number>
bool read_number(std::string_view text, Number& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

// Takes the document's tokens in the one order in which they are written; refuses any other by
// returning false, which ends the reading.
class CountsHandler : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, CountsHandler> {
public:
    explicit CountsHandler(std::size_t (*hash)(std::string_view)) : hash_(hash) {}

    UsageCounts take_counts() { return std::move(counts_); }

    // The reader's interface

    static bool Default() { return false; }
    bool StartArray() { return std::exchange(place_, Place::array) == Place::start; }
    static bool EndArray(std::size_t /*elements*/) { return true; }
    bool StartObject() {
        member_ = kTool;
        has_action_ = false;
        return std::exchange(place_, Place::object) == Place::array;
    }
    bool EndObject(std::size_t /*members*/) {
        if (member_ != kMembers.size()) {
            return false;
        }
        counts_.seed({&tool_, has_action_ ? &action_ : nullptr, &outcome_, alias_hit_}, usage_);
        place_ = Place::array;
        return true;
    }
    bool Key(const char* text, std::size_t size, bool /*copy*/) const {
        return member_ < kMembers.size() && std::string_view(text, size) == kMembers[member_];
    }
    bool String(const char* text, std::size_t size, bool /*copy*/) {
        const auto member = take_member();
        if (member > kOutcome) {
            return false;
        }
        auto& taken = member == kTool ? tool_ : member == kAction ? action_ : outcome_;
        taken = {{text, size}, hash_({text, size})};
        has_action_ |= member == kAction;
        return true;
    }
    bool Null() { return take_member() == kAction; }
    bool Bool(bool truth) {
        alias_hit_ = truth;
        return take_member() == kAliasHit;
    }
    bool RawNumber(const char* digits, std::size_t size, bool /*copy*/) {
        const std::string_view text(digits, size);
        switch (take_member()) {
            case kCalls:
                return read_number(text, usage_.calls);
            case kTimedCalls:
                return read_number(text, usage_.timed_calls);
            case kTotal:
                return text.find_first_of(".e") != std::string_view::npos &&
                       read_number(text, usage_.total_ms);
            default:
                return false;
        }
    }

private:
    enum class Place : std::uint8_t { start, array, object };

    // The member whose value has come; none of them for a value outside an object.
    std::size_t take_member() { return place_ == Place::object ? member_++ : kMembers.size(); }

    std::size_t (*hash_)(std::string_view);
    UsageCounts counts_;
    Place place_ = Place::start;
    std::size_t member_ = 0;  // the next one

    // The present element's values; the texts stand in the document.
    HashedText tool_{};
    HashedText action_{};
    HashedText outcome_{};
    bool has_action_ = false;
    bool alias_hit_ = false;
    Usage usage_;
};

// Writing

void append_unicode_escape(std::string& out, char32_t unit) {
    constexpr std::string_view kHex = "0123456789abcdef";
    out += "\\u";
    for (unsigned shift = 16; shift > 0; shift -= 4) {
        out += kHex[unit >> (shift - 4) & 0xFU];
    }
}

void append_escape(std::string& out, char32_t code_point) {
    constexpr std::string_view kNamed = "\"\\\b\f\n\r\t";
    constexpr std::string_view kNames = "\"\\bfnrt";
    if (code_point < 0x80) {
        if (const auto name = kNamed.find(static_cast<char>(code_point));
            name != std::string_view::npos) {
            out += '\\';
            out += kNames[name];
            return;
        }
    }
    if (code_point < 0x10000) {
        append_unicode_escape(out, code_point);
        return;
    }
    const char32_t beyond = code_point - 0x10000;
    append_unicode_escape(out, 0xD800 + (beyond >> 10U));
    append_unicode_escape(out, 0xDC00 + (beyond & 0x3FFU));
}

constexpr bool is_plain(char character) {
    return ' ' <= character && character <= '~' && character != '"' && character != '\\';
}

void append_string(std::string& out, std::string_view text) {
    out += '"';
    while (!text.empty()) {
        std::size_t plain = 0;
        while (plain < text.size() && is_plain(text[plain])) {
            ++plain;
        }
        out += text.substr(0, plain);
        text.remove_prefix(plain);
        if (!text.empty()) {
            append_escape(out, take_code_point(text));
        }
    }
    out += '"';
}

using NumberBuffer = std::array<char, 32>;

void append_count(std::string& out, Count count) {
    NumberBuffer buffer{};
    out.append(buffer.data(),
               std::to_chars(buffer.data(), buffer.data() + buffer.size(), count).ptr);
}

// The shortest text that reads back as the same double: fixed notation below 1e16, exponent
// notation from there up. A total is rounded, so it is never too small for fixed notation.
void append_total(std::string& out, double total) {
    if (!std::isfinite(total)) {
        out += std::isnan(total) ? "NaN" : total > 0 ? "Infinity" : "-Infinity";
        return;
    }
    const bool fixed = std::abs(total) < 1e16;
    const auto format = fixed ? std::chars_format::fixed : std::chars_format::scientific;
    NumberBuffer buffer{};
    const auto* end =
        std::to_chars(buffer.data(), buffer.data() + buffer.size(), total, format).ptr;
    const std::string_view text(buffer.data(), static_cast<std::size_t>(end - buffer.data()));
    out += text;
    if (fixed && text.find('.') == std::string_view::npos) {
        out += ".0";
    }
}

void append_entry(std::string& out, const UsageEntry& entry) {
    const auto& [key, usage] = entry;
    out += R"({"tool":)";
    append_string(out, key->tool->text);
    out += R"(,"action":)";
    if (key->action != nullptr) {
        append_string(out, key->action->text);
    } else {
        out += "null";
    }
    out += R"(,"outcome":)";
    append_string(out, key->outcome->text);
    out += key->alias_hit ? R"(,"alias_hit":true,"calls":)" : R"(,"alias_hit":false,"calls":)";
    append_count(out, usage.calls);
    out += R"(,"timed_calls":)";
    append_count(out, usage.timed_calls);
    out += R"(,"total_ms":)";
    append_total(out, round_decimals(usage.total_ms, 3));
    out += '}';
}

}  // namespace

std::optional<UsageCounts> read_usage_document(std::string_view document,
                                               std::size_t (*hash)(std::string_view)) {
    constexpr unsigned kFlags = rapidjson::kParseInsituFlag | rapidjson::kParseNumbersAsStringsFlag;
    std::string buffer(document);  // texts are unescaped where they stand
    rapidjson::InsituStringStream stream(buffer.data());
    rapidjson::Reader reader;
    CountsHandler handler(hash);
    // It takes a null character for the end.
    if (reader.Parse<kFlags>(stream, handler).IsError() || stream.Tell() != document.size()) {
        return std::nullopt;
    }
    return handler.take_counts();
}

std::string write_usage_document(std::span<const UsageEntry> entries) {
    std::string out = "[";
    for (const auto& entry : entries) {
        if (out.size() > 1) {
            out += ',';
        }
        append_entry(out, entry);
    }
    out += ']';
    return out;
}

}  // namespace health

#include "core/document_writer.hpp"

#include <array>
#include <charconv>
#include <cmath>
#include <string_view>

#include "core/text.hpp"

namespace health {
namespace {

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

// Text as the core keeps it: UTF-8, except that a lone surrogate is kept as
// the three bytes it would have if it were a character. Such text can hold
// whatever Python text holds, and its byte order is code-point order.
#pragma once

#include <cstddef>
#include <functional>
#include <string_view>

namespace health {

// Takes the first code point off `text`, which must not be empty.
char32_t take_code_point(std::string_view& text);

// The longest start of `text` that has at most `count` code points.
std::string_view first_code_points(std::string_view text, std::size_t count);

bool is_white_space(char32_t code_point);

// Hashes text for maps that are looked up by views.
struct TextHash {
    using is_transparent = void;

    std::size_t operator()(std::string_view text) const noexcept {
        return std::hash<std::string_view>{}(text);
    }
};

}  // namespace health

// Text as the core keeps it: UTF-8, except that a lone surrogate is kept as
// the three bytes it would have if it were a character. Such text can hold
// whatever Python text holds, and its byte order is code-point order.
#pragma once

#include <cstddef>
#include <functional>
#include <memory_resource>
#include <string_view>

namespace health {

// Takes the first code point off `text`, which must not be empty.
char32_t take_code_point(std::string_view& text);

// The longest start of `text` that has at most `count` code points.
std::string_view first_code_points(std::string_view text, std::size_t count);

bool is_white_space(char32_t code_point);

// A text with its hash, which whoever hands it over may have at hand. Texts that meet in one map
// must be hashed alike. A view: it keeps nothing alive.
struct HashedText {
    HashedText(std::string_view view) : HashedText(view, std::hash<std::string_view>{}(view)) {}
    HashedText(const char* literal) : HashedText(std::string_view(literal)) {}
    HashedText(std::string_view view, std::size_t hash_of_view) : text(view), hash(hash_of_view) {}

    bool operator==(const HashedText& other) const { return text == other.text; }

    std::string_view text;
    std::size_t hash;
};

struct TextHash {
    std::size_t operator()(const HashedText& text) const noexcept { return text.hash; }
};

// Keeps copies of texts, where they are, for as long as it lives.
class TextStore {
public:
    HashedText keep(const HashedText& text);

private:
    std::pmr::monotonic_buffer_resource memory_;
};

}  // namespace health

// Text as the core keeps it: UTF-8, except that a lone surrogate is kept as
// the three bytes it would have if it were a character. Such text can hold
// whatever Python text holds, and its byte order is code-point order.
#pragma once

#include <cstddef>
#include <memory>
#include <memory_resource>
#include <string_view>

namespace health {

// Takes the first code point off `text`, which must not be empty.
char32_t take_code_point(std::string_view& text);

bool is_white_space(char32_t code_point);

// A text with its hash, which the caller supplies: all texts of one map must be hashed alike. A
// view: it keeps nothing alive.
struct HashedText {
    bool operator==(const HashedText& other) const { return text == other.text; }

    std::string_view text;
    std::size_t hash = 0;
};

struct TextHash {
    std::size_t operator()(const HashedText& text) const noexcept { return text.hash; }
};

// Owns copies of texts, which keep their addresses for as long as it lives.
class TextStore {
public:
    HashedText keep(const HashedText& text);

private:
    using Memory = std::pmr::monotonic_buffer_resource;

    std::unique_ptr<Memory> memory_ = std::make_unique<Memory>();
};

}  // namespace health

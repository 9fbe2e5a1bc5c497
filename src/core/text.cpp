#include "core/text.hpp"

#include <algorithm>
#include <array>

namespace health {
namespace {

constexpr bool is_continuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

struct Range {
    char32_t first;
    char32_t last;
};

constexpr std::array kWhiteSpace{
    Range{0x09, 0x0D},     Range{0x1C, 0x20},     Range{0x85, 0x85},     Range{0xA0, 0xA0},
    Range{0x1680, 0x1680}, Range{0x2000, 0x200A}, Range{0x2028, 0x2029}, Range{0x202F, 0x202F},
    Range{0x205F, 0x205F}, Range{0x3000, 0x3000},
};

}  // namespace

char32_t take_code_point(std::string_view& text) {
    const auto lead = static_cast<unsigned char>(text.front());
    text.remove_prefix(1);
    if (lead < 0x80U) {
        return lead;
    }
    // The lead byte's high bits tell the length; what is left of it are the first bits.
    char32_t code_point = lead & (lead < 0xE0U ? 0x1FU : lead < 0xF0U ? 0x0FU : 0x07U);
    while (!text.empty() && is_continuation(text.front())) {
        code_point = code_point << 6U | (static_cast<unsigned char>(text.front()) & 0x3FU);
        text.remove_prefix(1);
    }
    return code_point;
}

bool is_white_space(char32_t code_point) {
    return std::any_of(kWhiteSpace.begin(), kWhiteSpace.end(), [&](const Range& range) {
        return range.first <= code_point && code_point <= range.last;
    });
}

HashedText TextStore::keep(const HashedText& text) {
    const auto size = text.text.size();
    auto* copy = static_cast<char*>(memory_->allocate(size, 1));
    std::copy_n(text.text.data(), size, copy);
    return {.text = {copy, size}, .hash = text.hash};
}

}  // namespace health

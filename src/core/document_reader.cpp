#include "core/document_reader.hpp"

#include <rapidjson/reader.h>
#include <array>
#include <charconv>
#include <cstdint>
#include <string>
#include <utility>

namespace health {
namespace {

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

}  // namespace health

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "core/document_reader.hpp"
#include "core/document_writer.hpp"
#include "hashed.hpp"

namespace health {
namespace {

using namespace std::string_literals;

const auto kOk = hashed("ok");

TEST(UsageDocument, HasTheSevenMembersInOrder) {
    UsageCounts usage;
    EXPECT_EQ(write_usage_document(usage.snapshot()), "[]");
    const auto status = hashed("status");
    const auto perf_stats = hashed("perf_stats");
    const auto escaped = hashed("q\"\\\n\x7f");
    const auto wide = hashed("\u00e9\U0001f600\xed\xa0\x80");
    usage.seed({&status, &perf_stats, &kOk, false}, {12, 12, 41.87650000001});
    usage.seed({&escaped, nullptr, &wide, true}, {2, 0, 0.0});
    EXPECT_EQ(write_usage_document(usage.snapshot()),
              R"([{"tool":"status","action":"perf_stats","outcome":"ok","alias_hit":false,)"
              R"("calls":12,"timed_calls":12,"total_ms":41.877},)"
              R"({"tool":"q\"\\\n\u007f","action":null,"outcome":"\u00e9\ud83d\ude00\ud800",)"
              R"("alias_hit":true,"calls":2,"timed_calls":0,"total_ms":0.0}])");
}

TEST(UsageDocument, IsReadBackAsItWasWritten) {
    const std::string document =
        R"([{"tool":"a\u00e9\ud83d\ude00\"\u0000","action":null,"outcome":"ok","alias_hit":false,)"
        R"("calls":-9223372036854775808,"timed_calls":0,"total_ms":1e+16},)"
        R"({"tool":"","action":"x","outcome":"","alias_hit":true,"calls":1,"timed_calls":1,)"
        R"("total_ms":-0.125},)"
        R"({"tool":"b","action":null,"outcome":"ok","alias_hit":false,"calls":2,"timed_calls":0,)"
        R"("total_ms":0.0}])";
    const auto counts = read_usage_document(document, hash_of);
    ASSERT_TRUE(counts);
    EXPECT_EQ(write_usage_document(counts->snapshot()), document);
    EXPECT_EQ(read_usage_document(" [ ] ", hash_of)->snapshot().size(), 0U);
}

TEST(UsageDocument, OfAnyOtherFormIsNotRead) {
    const std::string element =
        R"({"tool":"a","action":"x","outcome":"ok","alias_hit":true,"calls":1,"timed_calls":2,)"
        R"("total_ms":3.5})";
    ASSERT_TRUE(read_usage_document('[' + element + ']', hash_of));
    const std::vector<std::pair<std::string, std::string>> edits{
        {R"("a")", "null"},
        {R"("a")", "5"},
        {R"("a")", R"("\ud800")"},
        {R"("x")", "true"},
        {R"("x")", "[]"},
        {R"("ok")", "{}"},
        {"true", "1"},
        {":1,", ":1.0,"},
        {":1,", ":9223372036854775808,"},
        {":1,", R"(:"1",)"},
        {":2,", ":02,"},
        {"3.5", "3"},
        {"3.5", "NaN"},
        {"3.5", "1e999"},
        {R"("calls":1,)", ""},
        {R"("calls")", R"("c")"},
        {"3.5}", R"(3.5,"more":1})"},
        {R"(,"total_ms":3.5)", ""},
    };
    for (const auto& [from, to] : edits) {
        auto edited = element;
        edited.replace(edited.find(from), from.size(), to);
        EXPECT_FALSE(read_usage_document('[' + edited + ']', hash_of)) << edited;
    }
    for (const auto& whole :
         {std::string(), element, "[[" + element + "]]", std::string("[5]"), std::string(R"([""])"),
          '[' + element, '[' + element + "]]", '[' + element + "]\0"s}) {
        EXPECT_FALSE(read_usage_document(whole, hash_of)) << whole;
    }
}

}  // namespace
}  // namespace health

// Compiling, counting and collecting matches; empty matches, offsets, failing allocations.

#include "support.h"

#include "tarn_regex.h"

#include <memory>

using support::expect_check;
using support::log_capture;

namespace
{

/** All results of a pattern in a text as "START-END:TEXT ...", checked against the count and the
 *  bytes of the text. */
std::string matches(const char *pattern, const std::string &text, uint32_t max_matches = 100)
{
    const std::unique_ptr<char[]> exact(new char[text.size() + 1]);
    text.copy(exact.get(), text.size());
    exact[text.size()] = '\0';
    TARN_REGEX re = tarn_regex_create_ex(pattern, max_matches);
    EXPECT_NE(re, nullptr);
    std::string shown;
    size_t count = 0;
    for (const auto *result = tarn_regex_match_all(re, exact.get()); result != nullptr;
         result = result->next)
    {
        EXPECT_LE(result->start, result->end);
        EXPECT_EQ(text.substr(result->start, result->end - result->start), result->text);
        shown += (count++ != 0 ? " " : "") + std::to_string(result->start) + "-" +
                 std::to_string(result->end) + ":" + result->text;
    }
    EXPECT_EQ(tarn_regex_match(re, exact.get()), count);
    tarn_close_handle(re);
    return shown;
}

TEST(Regex, FillsSlotsOfSuccessiveMatchesWithAbsoluteOffsets)
{
    EXPECT_EQ(matches("a(b)", "abab"), "0-2:ab 1-2:b 2-4:ab 3-4:b");
    EXPECT_EQ(matches("[0-9]+", "x12y345"), "1-3:12 4-7:345");
    EXPECT_EQ(matches("\\d+", "x12"), "1-3:12"); // PCRE2, not the C library's matcher
    EXPECT_EQ(matches("z", "x12"), "");
    EXPECT_EQ(matches("z", ""), "");
    EXPECT_EQ(matches("a(?=(b))", "ab"), "0-1:a 1-2:b");           // a group behind the match
    EXPECT_EQ(matches("(a)|(b)(c)", "bca"), "0-2:bc 2-3:a 2-3:a"); // up to the first unused slot
    EXPECT_EQ(matches("a\\Kb", "xab"), "2-3:b");
    EXPECT_EQ(matches("\xff.", "\xff\x80\xff"), "0-2:\xff\x80");
}

TEST(Regex, UsesNoMoreSlotsThanAskedFor)
{
    EXPECT_EQ(matches("(a)(b)", "abab", 2), "0-2:ab 0-1:a 2-4:ab 2-3:a");
    EXPECT_EQ(matches("(a)(b)", "abab", 1), "0-2:ab 2-4:ab");
    EXPECT_EQ(matches("(a)(b)", "abab", 0), "");
    EXPECT_EQ(matches("", "abab", 0), "");
}

TEST(Regex, EmptyMatchesMoveOn)
{
    EXPECT_EQ(matches("x*", "axb"), "0-0: 1-2:x 2-2: 3-3:");
    EXPECT_EQ(matches("", ""), "0-0:");
    EXPECT_EQ(matches("(x)?", "ab"), "0-0: 1-1: 2-2:");
    EXPECT_EQ(matches("", "\xc3\xa9"), "0-0: 1-1: 2-2:");
    EXPECT_EQ(matches("(*UCP)(*UTF)x*", "\xc3\xa9x\xc3\xa9"), "0-0: 2-3:x 3-3: 5-5:");
    EXPECT_EQ(matches("(*UTF)x*", "\xc3\xa9\xff"), ""); // no valid UTF-8, no match
    // found from a distance first, then at the place itself
    EXPECT_EQ(matches("$", "ab\nc"), "2-2: 2-2: 4-4: 4-4:");
}

TEST(Regex, EverySearchBeginsALine)
{
    EXPECT_EQ(matches("^a", "aab\na"), "0-1:a 1-2:a 4-5:a");
    EXPECT_EQ(matches("b$", "b\nbb"), "0-1:b 3-4:b");
    EXPECT_EQ(matches("a.b", "a\nb"), "");
    EXPECT_EQ(matches("(?<=a)b", "ab"), "1-2:b");
}

TEST(Regex, ResultsLiveUntilTheNextCollection)
{
    TARN_REGEX re = tarn_regex_create("a+");
    const auto *first = tarn_regex_match_all(re, "aa");
    EXPECT_EQ(tarn_regex_match(re, "baab"), 1u); // counting leaves the list alone
    expect_check("RVON(text,NULL)");
    EXPECT_EQ(tarn_regex_match_all(re, nullptr), nullptr);
    EXPECT_STREQ(first->text, "aa");
    EXPECT_EQ(tarn_regex_match_all(re, "b"), nullptr);
    tarn_regex_destroy(re);
    tarn_regex_destroy(nullptr);
}

TEST(Regex, InvalidPatternsAndMissingArgumentsAreTold)
{
    log_capture log;
    EXPECT_EQ(tarn_regex_create("a(b%s"), nullptr);
    EXPECT_TRUE(log.contains("error", "create regex object a(b%s failed, error = "));
    EXPECT_TRUE(log.contains("() at offset 5")); // the library's own words behind "msg = "
    for (const char *text :
         {"RVON(pattern,TARN_INVALID_HANDLE)", "RVON(re,0)", "RVON(re,NULL)", "RVON(text,0)"})
    {
        expect_check(text);
    }
    EXPECT_EQ(tarn_regex_create(nullptr), nullptr);
    EXPECT_EQ(tarn_regex_match(nullptr, "a"), 0u);
    EXPECT_EQ(tarn_regex_match_all(nullptr, "a"), nullptr);
    TARN_REGEX re = tarn_regex_create("a");
    EXPECT_EQ(tarn_regex_match(re, nullptr), 0u);
    tarn_regex_destroy(re);
}

TEST(Regex, RunawayPatternEndsTheMatching)
{
    const std::string text(64, 'a');
    EXPECT_EQ(matches("(*LIMIT_MATCH=1000)(a+)+b", text), "");
}

TEST(Regex, FailingAllocationsGiveNothing)
{
    log_capture log;
    expect_check("RVON(m,0)");
    expect_check("RVON(result,NULL)");
    const auto run = [](size_t) {
        TARN_REGEX re = tarn_regex_create("(a)");
        EXPECT_EQ(re == nullptr, support::allocation_failed());
        if (re == nullptr)
        {
            return;
        }
        const size_t count = tarn_regex_match(re, "aa");
        EXPECT_EQ(count, support::allocation_failed() ? 0u : 4u);
        const bool failed_before = support::allocation_failed();
        const auto *head = tarn_regex_match_all(re, "aa");
        EXPECT_EQ(head == nullptr, support::allocation_failed() && !failed_before);
        tarn_regex_destroy(re);
    };
    EXPECT_EQ(support::fail_each_allocation(run), 2u + 1u + 4u);
    EXPECT_EQ(log.count("fail to alloc memory for regex object (a)."), 2u);
}

} // namespace

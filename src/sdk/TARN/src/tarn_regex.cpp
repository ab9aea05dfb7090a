// Regular expressions: a wrapper round PCRE2's POSIX-style interface.
//
// Only <pcre2posix.h> is included, never <regex.h>: the functions of both have the same names in the
// source, and with the C library's header its matcher would be called instead, silently.

#include "tarn_regex.h"

#include "tarn_modules.h"
#include "tarn_raii.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <string_view>
#include <utility>

#include <pcre2posix.h>

struct tarn_regex
{
    tarn_handle_header header;
    uint32_t max_matches;
    regmatch_t *slots;
    regex_t compiled;
    tarn_regex_result *results; ///< of the latest tarn_regex_match_all()
    uint8_t utf;                ///< 1: the pattern asks for UTF-8 texts
};
TARN_ASSERT_RECORD(tarn_regex);

namespace
{

constexpr uint32_t default_max_matches = 100;
constexpr size_t error_text_size = 1024;

/** The pattern's leading settings "(*NAME)" hold (*UTF). */
bool asks_for_utf(std::string_view pattern)
{
    while (pattern.starts_with("(*"))
    {
        if (pattern.starts_with("(*UTF)"))
        {
            return true;
        }
        pattern.remove_prefix(std::min(pattern.find(')'), pattern.size() - 1) + 1);
    }
    return false;
}

/** Slots that the matcher has to fill. Those behind the last group of the pattern would only be
 *  written as unused, max_matches of them for every match. */
size_t slots_in_use(const tarn_regex &re)
{
    return std::min<size_t>(re.max_matches, re.compiled.re_nsub + 1);
}

/** One search in a rest of the text; slots receive offsets from the rest's start. */
bool search(const tarn_regex &re, const char *rest, size_t length, regmatch_t *slots)
{
    // With the length given the matcher does not measure the rest again at every match. Its offsets
    // are ints: of a longer rest the first 2 GiB are searched.
    slots[0].rm_so = 0;
    slots[0].rm_eo = static_cast<regoff_t>(std::min<size_t>(length, INT_MAX));
    return regexec(&re.compiled, rest, slots_in_use(re), slots, REG_STARTEND) == 0;
}

/** Length of the character at the start of a rest that is not empty. */
size_t character_length(const tarn_regex &re, const char *rest)
{
    size_t length = 1;
    while (re.utf != 0 && (static_cast<unsigned char>(rest[length]) & 0xC0) == 0x80)
    {
        ++length; // a search from inside a character would fail
    }
    return length;
}

/** Run all searches and hand each filled slot to take(slot, position), where position is what the
 *  slot's offsets count from; take returns false to stop.
 *  @return false when it was stopped */
template <typename Take>
bool for_each_slot(const tarn_regex &re, const char *text, regmatch_t *slots, Take take)
{
    const size_t length = std::strlen(text);
    const size_t count = slots_in_use(re);
    size_t position = 0;
    while (count != 0 && search(re, text + position, length - position, slots))
    {
        for (size_t i = 0; i < count && slots[i].rm_so != -1; ++i)
        {
            if (!take(slots[i], position))
            {
                return false;
            }
        }
        if (slots[0].rm_eo > 0)
        {
            position += static_cast<size_t>(slots[0].rm_eo);
        }
        else if (position < length)
        {
            position += character_length(re, text + position);
        }
        else
        {
            break;
        }
    }
    return true;
}

/** A result with its text behind it in the same block. */
tarn_regex_result *make_result(const char *text, const regmatch_t &slot, size_t position)
{
    // \K can set a start behind the end
    const auto start = position + static_cast<size_t>(slot.rm_so);
    const auto end = std::max(start, position + static_cast<size_t>(slot.rm_eo));
    auto *const result = static_cast<tarn_regex_result *>(
        tarn_mem_alloc(sizeof(tarn_regex_result) + (end - start) + 1));
    RVON(result, NULL);
    result->text = reinterpret_cast<char *>(result + 1);
    tarn_mem_copy(result->text, text + start, end - start);
    result->start = start;
    result->end = end;
    return result;
}

void free_results(TARN_REGEX re)
{
    for (tarn_regex_result *result = std::exchange(re->results, nullptr); result != nullptr;)
    {
        tarn_mem_free(std::exchange(result, result->next));
    }
}

} // namespace

TARN_REGEX tarn_regex_create_ex(const char *pattern, uint32_t max_matches)
{
    RVON(pattern, TARN_INVALID_HANDLE);
    auto re = tarn::make_object<tarn_regex>(TARN_HANDLE_TYPE_REGEX);
    auto slots = tarn::unique_mem<regmatch_t>::make_array(max_matches);
    if (!re || !slots)
    {
        TARN_LOG_ERROR("fail to alloc memory for regex object %s.", pattern);
        return TARN_INVALID_HANDLE;
    }
    if (const int rc = regcomp(&re->compiled, pattern, REG_NEWLINE); rc != 0)
    {
        char text[error_text_size];
        (void)regerror(rc, &re->compiled, text, sizeof text);
        TARN_LOG_ERROR("create regex object %s failed, error = %d, msg = %s", pattern, rc, text);
        return TARN_INVALID_HANDLE; // nothing was compiled, so nothing to free
    }
    re->max_matches = max_matches;
    re->utf = asks_for_utf(pattern) ? 1 : 0;
    re->slots = slots.release();
    return re.release();
}

TARN_REGEX tarn_regex_create(const char *pattern)
{
    return tarn_regex_create_ex(pattern, default_max_matches);
}

void tarn_regex_destroy(TARN_REGEX re)
{
    if (re == nullptr)
    {
        return;
    }
    free_results(re);
    regfree(&re->compiled);
    tarn_mem_free(re->slots);
    tarn_mem_free(re);
}

size_t tarn_regex_match(TARN_REGEX re, const char *text)
{
    RVON(re, 0);
    RVON(text, 0);
    // Slots of its own, so that counting leaves those of the object alone.
    const auto m = tarn::unique_mem<regmatch_t>::make_array(slots_in_use(*re));
    RVON(m, 0);
    size_t count = 0;
    (void)for_each_slot(*re, text, m.get(), [&count](const regmatch_t &, size_t) {
        ++count;
        return true;
    });
    return count;
}

const tarn_regex_result *tarn_regex_match_all(TARN_REGEX re, const char *text)
{
    RVON(re, NULL);
    RVON(text, NULL);
    free_results(re);
    tarn_regex_result **tail = &re->results;
    const bool complete =
        for_each_slot(*re, text, re->slots, [&](const regmatch_t &slot, size_t position) {
            *tail = make_result(text, slot, position);
            if (*tail == nullptr)
            {
                return false;
            }
            tail = &(*tail)->next;
            return true;
        });
    if (!complete)
    {
        free_results(re);
    }
    return re->results;
}

bool tarn_regex_init(void)
{
    TARN_LOG_EMPTY(TARN_LOG_LEVEL_TRACE);
    return true;
}

void tarn_regex_uninit(void)
{
    TARN_LOG_EMPTY(TARN_LOG_LEVEL_TRACE);
}

// UUID text and byte order, and the module's place in the table. Base64, URLs and bit arrays have
// files of their own.

#include "tarn_util.h"

#include "tarn_file_port.h"
#include "tarn_modules.h"
#include "tarn_os.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace
{

constexpr size_t uuid_length = 36;
constexpr char no_uuid[] = "00000000-0000-0000-0000-000000000000";
static_assert(sizeof no_uuid == uuid_length + 1);

constinit thread_local char uuid_text[uuid_length + 1] = {};

/** Applies change to each of count words; the buffer may be at any address. */
template <typename Word, typename Change>
void for_each_word(void *buf, size_t count, Change change) noexcept
{
    auto *at = static_cast<uint8_t *>(buf);
    for (size_t i = 0; i < count; ++i, at += sizeof(Word))
    {
        Word word;
        std::memcpy(&word, at, sizeof word);
        word = change(word);
        std::memcpy(at, &word, sizeof word);
    }
}

} // namespace

const char *tarn_uuid_str_gen(void)
{
    const tarn::unique_fd file(tarn::file_open_read("/proc/sys/kernel/random/uuid"));
    if (!file)
    {
        TARN_LOG_ERROR("fail to open /proc/sys/kernel/random/uuid");
        return no_uuid;
    }
    if (tarn::file_read_some(file.get(), uuid_text, uuid_length) != int64_t{uuid_length})
    {
        TARN_LOG_ERROR("fail to read a whole uuid");
        return no_uuid;
    }
    uuid_text[uuid_length] = '\0';
    return uuid_text;
}

size_t tarn_util_reverse_bytes(void *buf, size_t n)
{
    RVON(buf, 0);
    auto *bytes = static_cast<uint8_t *>(buf);
    std::reverse(bytes, bytes + n);
    return n;
}

size_t tarn_util_swap16(void *buf, size_t count)
{
    RVON(buf, 0);
    for_each_word<uint16_t>(buf, count, [](uint16_t word) { return __builtin_bswap16(word); });
    return count;
}

size_t tarn_util_swap32(void *buf, size_t count)
{
    RVON(buf, 0);
    for_each_word<uint32_t>(buf, count, [](uint32_t word) { return __builtin_bswap32(word); });
    return count;
}

size_t tarn_util_swap64(void *buf, size_t count)
{
    RVON(buf, 0);
    for_each_word<uint64_t>(buf, count, [](uint64_t word) { return __builtin_bswap64(word); });
    return count;
}

size_t tarn_util_swap_halves(void *buf, size_t count)
{
    RVON(buf, 0);
    for_each_word<uint32_t>(buf, count, [](uint32_t word) { return std::rotl(word, 16); });
    return count;
}

size_t tarn_util_reverse_words(void *buf, size_t count)
{
    RVON(buf, 0);
    // reversing all bytes reverses the words and the bytes of each; the swap undoes the latter
    tarn_util_reverse_bytes(buf, 2 * count);
    return tarn_util_swap16(buf, count);
}

bool tarn_util_init(void)
{
    return true; // the Base64 tables are built by the compiler
}

void tarn_util_uninit(void) {}

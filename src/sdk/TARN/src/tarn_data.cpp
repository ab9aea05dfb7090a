// Typed data values: creation, raw access, copies and lists. Conversions are in
// tarn_data_convert.cpp, the byte form is in tarn_data_buffer.cpp.
//
// A list is a chain of values; its head knows the last one, so that appending takes no walk. Lists
// come from other processes and may be as long as memory allows: everything walks them in loops.

#include "tarn_data.h"

#include "tarn_data_internal.h"
#include "tarn_modules.h"

#include <algorithm>
#include <utility>

using tarn::data_form;
using tarn::data_type;
using tarn::data_type_of;
using tarn::unique_data;

namespace
{

/** Takes a value that stands alone out of any list it knew. */
void make_single(tarn_data *data) noexcept
{
    data->next = nullptr;
    data->tail = data;
    data->count = 1;
    data->role = TARN_DATA_ROLE_SINGLE;
}

/** The pair of a value, allocated when there is none yet; null when memory ran out. */
tarn_data_pair *own_pair(tarn_data *data)
{
    if (data->word.pair == nullptr)
    {
        data->word.pair = tarn::unique_mem<tarn_data_pair>::make().release();
    }
    return data->word.pair;
}

bool get_string(const tarn_data &data, void *out, uint32_t *room)
{
    const uint32_t length = data.word.length;
    if (out != nullptr)
    {
        if (*room < length || tarn::lacks_buffer(data))
        {
            return false;
        }
        tarn_mem_copy(out, data.buffer, length);
    }
    *room = length;
    return true;
}

bool copy_pair(tarn_data *dst, const tarn_data &src)
{
    if (src.word.pair == nullptr)
    {
        return false;
    }
    if (dst->type == TARN_DATA_TYPE_PAIR && dst->word.pair != nullptr)
    {
        return true; // deliberately keeps what it has
    }
    auto pair = tarn::unique_mem<tarn_data_pair>::make();
    if (!pair)
    {
        return false;
    }
    *pair = *src.word.pair;
    dst->word.pair = pair.release();
    return true;
}

} // namespace

namespace tarn
{

void data_append(tarn_data *head, tarn_data *list) noexcept
{
    tarn_data *const last = std::exchange(list->tail, list);
    head->count += std::exchange(list->count, 1);
    head->tail->next = list;
    head->tail = last;
    head->role = TARN_DATA_ROLE_HEAD;
    list->role = TARN_DATA_ROLE_CHILD;
}

bool data_replace_string(tarn_data *data, const void *source, uint32_t size, uint32_t length)
{
    char *fresh = nullptr;
    if (length != 0)
    {
        fresh = static_cast<char *>(tarn_mem_realloc(nullptr, length));
    }
    if (fresh != nullptr)
    {
        std::fill_n(std::copy_n(static_cast<const char *>(source), size, fresh), length - size,
                    '\0');
    }
    if (char *const old = std::exchange(data->buffer, fresh); old != nullptr)
    {
        tarn_mem_free(old);
    }
    data->word.length = length;
    return !lacks_buffer(*data);
}

} // namespace tarn

// ---- creation and raw access --------------------------------------------------------------------

TARN_DATA tarn_data_alloc(uint8_t type, const void *param1, const uint32_t *param2)
{
    if (type != TARN_DATA_TYPE_NULL)
    {
        RVON(param1, NULL);
    }
    const data_form form = data_type_of(type).form;
    if (form == data_form::invalid ||
        (form == data_form::text && (param2 == nullptr || *param2 == 0)))
    {
        return TARN_INVALID_HANDLE;
    }
    unique_data data = tarn::data_create();
    RVON(data, NULL);
    data.get()->type = type;
    return tarn_data_set_value(data.get(), param1, param2) ? data.release() : TARN_INVALID_HANDLE;
}

void tarn_data_destroy(TARN_DATA data)
{
    while (data != nullptr)
    {
        if (data->type == TARN_DATA_TYPE_PAIR)
        {
            tarn_mem_free(data->word.pair);
        }
        else if (data->type == TARN_DATA_TYPE_STRING)
        {
            tarn_mem_free(data->buffer);
        }
        tarn_mem_free(std::exchange(data, data->next));
    }
}

bool tarn_data_set_value(TARN_DATA data, const void *param1, const uint32_t *param2)
{
    RVON(data, false);
    if (data->type != TARN_DATA_TYPE_NULL)
    {
        RVON(param1, false);
    }
    const data_type &type = data_type_of(data->type);
    switch (type.form)
    {
    case data_form::invalid:
        return false;
    case data_form::pair:
        if (own_pair(data) == nullptr)
        {
            return false;
        }
        tarn_mem_move(data->word.pair, param1, sizeof(tarn_data_pair));
        return true;
    case data_form::text:
        return param2 != nullptr && *param2 != 0 &&
               tarn::data_replace_string(data, param1, *param2, *param2);
    default:
        tarn::store_scalar(&data->word, type.width, tarn::load_scalar(param1, type.width));
        return true;
    }
}

bool tarn_data_get_value(TARN_DATA data, void *param1, uint32_t *param2)
{
    RVON(data, false);
    const data_type &type = data_type_of(data->type);
    if (type.form == data_form::text)
    {
        RVON(param2, false);
        return get_string(*data, param1, param2);
    }
    if (type.form != data_form::null)
    {
        RVON(param1, false);
    }
    if (type.form == data_form::invalid ||
        (type.form == data_form::pair && data->word.pair == nullptr))
    {
        return false;
    }
    const void *raw = &data->word;
    if (type.form == data_form::pair)
    {
        raw = data->word.pair;
    }
    tarn_mem_move(param1, raw, type.width);
    return true;
}

uint32_t tarn_data_get_str_len(TARN_DATA data)
{
    RVON(data, 0);
    RVOF(TARN_DATA_TYPE_STRING == data->type, 0);
    return data->word.length;
}

char *tarn_data_get_str_buffer(TARN_DATA data)
{
    RVON(data, NULL);
    RVOF(TARN_DATA_TYPE_STRING == data->type, NULL);
    return data->buffer;
}

uint8_t tarn_data_get_type(TARN_DATA data)
{
    RVON(data, 0);
    return data->type;
}

bool tarn_data_copy(TARN_DATA dst, TARN_DATA src)
{
    RVON(src, false);
    RVON(dst, false);
    if (dst->type != TARN_DATA_TYPE_NULL)
    {
        RVOF(src->type == dst->type, false);
    }
    switch (data_type_of(src->type).form)
    {
    case data_form::invalid:
        return false;
    case data_form::pair:
        if (!copy_pair(dst, *src))
        {
            return false;
        }
        break;
    case data_form::text:
        if (tarn::lacks_buffer(*src) ||
            !tarn::data_replace_string(dst, src->buffer, src->word.length, src->word.length))
        {
            return false;
        }
        break;
    default:
        dst->word = src->word;
        break;
    }
    dst->type = src->type;
    return true;
}

TARN_DATA tarn_data_dup(TARN_DATA data)
{
    RVON(data, NULL);
    // Not through tarn_data_alloc(), which refuses the empty strings that a buffer can bring.
    unique_data copy = tarn::data_create();
    return copy && tarn_data_copy(copy.get(), data) ? copy.release() : TARN_INVALID_HANDLE;
}

TARN_DATA tarn_data_dup_list(TARN_DATA head)
{
    unique_data list(tarn_data_dup(head));
    while (list && (head = head->next) != nullptr)
    {
        unique_data copy(tarn_data_dup(head));
        if (!copy)
        {
            return TARN_INVALID_HANDLE;
        }
        tarn::data_append(list.get(), copy.release());
    }
    return list.release();
}

// ---- lists --------------------------------------------------------------------------------------

bool tarn_data_add_tail(TARN_DATA data_handle, TARN_DATA tail_data_handle)
{
    RVON(data_handle, false);
    RVON(tail_data_handle, false);
    tarn_data *const head_data = data_handle;
    RVOF(head_data->role != TARN_DATA_ROLE_CHILD, false);
    // A list appended to itself would have no end.
    if (tail_data_handle->role == TARN_DATA_ROLE_CHILD || tail_data_handle == head_data)
    {
        return false;
    }
    tarn::data_append(head_data, tail_data_handle);
    return true;
}

TARN_DATA tarn_data_remove_head(TARN_DATA old_head)
{
    RVON(old_head, NULL);
    // A value further down knows neither the end nor the length of the list it is in.
    if (old_head->role == TARN_DATA_ROLE_CHILD)
    {
        return TARN_INVALID_HANDLE;
    }
    tarn_data *const new_head = old_head->next;
    if (new_head != nullptr)
    {
        new_head->tail = old_head->tail;
        new_head->count = old_head->count - 1;
        new_head->role = TARN_DATA_ROLE_HEAD;
    }
    make_single(old_head);
    return new_head;
}

uint32_t tarn_data_count(TARN_DATA data)
{
    RVON(data, 0);
    if (data->role == TARN_DATA_ROLE_HEAD)
    {
        return data->count;
    }
    uint32_t count = 0;
    for (; data != nullptr; data = data->next)
    {
        ++count;
    }
    return count;
}

TARN_DATA tarn_data_get_next(TARN_DATA data)
{
    return data != nullptr ? data->next : nullptr;
}

TARN_DATA tarn_data_get_at(TARN_DATA data, uint32_t n)
{
    while (data != nullptr && n-- != 0)
    {
        data = data->next;
    }
    return data;
}

// ---- module -------------------------------------------------------------------------------------

bool tarn_data_init(void)
{
    TARN_LOG_TRACE("%s\n", __func__);
    return true;
}

void tarn_data_uninit(void)
{
    TARN_LOG_TRACE("%s\n", __func__);
}

/** @file
 *  C++: containers, digests, regular expressions, typed data and RPC messages. Part of tarn.hpp,
 *  which says what holds for all of it. */
#ifndef TARN_CXX_DATA_HPP
#define TARN_CXX_DATA_HPP

#include "tarn_cxx_owner.hpp"
#include "tarn_data.h"
#include "tarn_hash.h"
#include "tarn_list.h"
#include "tarn_md5.h"
#include "tarn_mhash.h"
#include "tarn_regex.h"
#include "tarn_ringbuf.h"
#include "tarn_rpc_msg.h"

#include <optional>

namespace tarn
{
inline namespace v1
{

class list_ref : public handle_ref<TARN_LIST>
{
public:
    using handle_ref::handle_ref;
    [[nodiscard]] uint32_t count() const
    {
        return tarn_list_count(handle_);
    }
    bool push_back(void *item) const
    {
        return tarn_list_push_back(handle_, item);
    }
    void *pop_front() const
    {
        return tarn_list_pop_front(handle_);
    }
    /** Call f(void *item) for each. */
    template <typename F>
    void for_each(F &&f) const
    {
        const auto call = [](void *item, void *arg, void *) { detail::borrowed<F>(arg)(item); };
        tarn_list_for_each(handle_, call, detail::borrow(f), nullptr);
    }
    /** First item for which f(void *item) is true. */
    template <typename F>
    void *find_if(F &&f) const
    {
        return tarn_list_find_if(handle_, test<F>, detail::borrow(f), nullptr);
    }
    template <typename F>
    void *remove_if(F &&f) const
    {
        return tarn_list_remove_if(handle_, test<F>, detail::borrow(f), nullptr);
    }

private:
    template <typename F>
    static bool test(void *item, void *arg, void *)
    {
        return detail::borrowed<F>(arg)(item);
    }
};
class list : public owner<list_ref, tarn_list_destroy>
{
public:
    using owner::owner;
    static list create(uint32_t max_size)
    {
        return list(tarn_list_create(max_size));
    }
};

/** Keys are texts of any bytes: every one is looked up, the empty one too. */
class hash_ref : public handle_ref<TARN_HASH>
{
public:
    using handle_ref::handle_ref;
    [[nodiscard]] uint32_t count() const
    {
        return tarn_hash_count(handle_);
    }
    void *add(std::string_view key, void *value) const
    {
        return tarn_hash_add_ex(handle_, start(key), key.size(), value);
    }
    /** The value of a key, which may be null; nothing when the key is not there. */
    [[nodiscard]] std::optional<void *> find(std::string_view key) const
    {
        void *value = nullptr;
        const bool found = tarn_hash_find_ex(handle_, start(key), key.size(), &value);
        return found ? std::optional<void *>(value) : std::nullopt;
    }
    void *remove(std::string_view key) const
    {
        return tarn_hash_remove_ex(handle_, start(key), key.size());
    }
    /** Call f(const void *key, void *value) for each. */
    template <typename F>
    void for_each(F &&f) const
    {
        const auto call = [](uint32_t, const void *key, void *value, void *arg, void *) {
            detail::borrowed<F>(arg)(key, value);
        };
        tarn_hash_for_each(handle_, call, detail::borrow(f), nullptr);
    }

private:
    /** The interface takes length 0 for a NUL-terminated key. */
    static const char *start(std::string_view key)
    {
        return key.empty() ? "" : key.data();
    }
};
class hash : public owner<hash_ref, tarn_hash_destroy>
{
public:
    using owner::owner;
    static hash create(tarn_hash_cmp key_cmp = nullptr, tarn_hash_cmp value_cmp = nullptr)
    {
        return hash(tarn_hash_create_ordered(key_cmp, value_cmp));
    }
};

using mhash_ref = handle_ref<TARN_MHASH>;
using mhash = owner<mhash_ref, tarn_mhash_destroy>;

class ringbuf_ref : public handle_ref<TARN_RINGBUF>
{
public:
    using handle_ref::handle_ref;
    uint32_t write(const_bytes src) const
    {
        return tarn_ringbuf_write(handle_, src.data(), src.size32());
    }
    uint32_t read(bytes dst) const
    {
        return tarn_ringbuf_read(handle_, dst.data(), dst.size32());
    }
    [[nodiscard]] uint32_t bytes_used() const
    {
        return tarn_ringbuf_bytes_used(handle_);
    }
};
class ringbuf : public owner<ringbuf_ref, tarn_ringbuf_destroy>
{
public:
    using owner::owner;
    static ringbuf create(uint32_t capacity)
    {
        return ringbuf(tarn_ringbuf_create(capacity));
    }
};

class regex_ref : public handle_ref<TARN_REGEX>
{
public:
    using handle_ref::handle_ref;
    [[nodiscard]] size_t match(const char *text) const
    {
        return tarn_regex_match(handle_, text);
    }
    const tarn_regex_result *match_all(const char *text) const
    {
        return tarn_regex_match_all(handle_, text);
    }
};
class regex : public owner<regex_ref, tarn_regex_destroy>
{
public:
    using owner::owner;
    static regex create(const char *pattern, uint32_t max_matches = 100)
    {
        return regex(tarn_regex_create_ex(pattern, max_matches));
    }
};

class md5_ref : public handle_ref<TARN_MD5>
{
public:
    using handle_ref::handle_ref;
    bool update(const_bytes data) const
    {
        return tarn_md5_update(handle_, data.data(), data.size());
    }
    bool final(uint8_t (&digest)[TARN_MD5_DIGEST_LENGTH]) const
    {
        return tarn_md5_final(handle_, digest);
    }
};
class md5 : public owner<md5_ref, tarn_md5_destroy>
{
public:
    using owner::owner;
    static md5 create()
    {
        return md5(tarn_md5_create());
    }
};

// ---- typed data ----------------------------------------------------------------------------------

namespace detail
{

/** What stands for the numeric type T in a table of codes: unsigned, signed by size, then bool,
 *  float, double. */
template <typename T>
constexpr uint8_t number_code(const uint8_t (&unsigned_codes)[4], const uint8_t (&signed_codes)[4],
                              uint8_t bool_code, uint8_t float_code, uint8_t double_code)
{
    static_assert(std::is_arithmetic_v<T> && sizeof(T) <= 8, "a number of at most 64 bits");
    constexpr int index = sizeof(T) == 1 ? 0 : sizeof(T) == 2 ? 1 : sizeof(T) == 4 ? 2 : 3;
    if (std::is_same_v<T, bool>)
    {
        return bool_code;
    }
    if (std::is_floating_point_v<T>)
    {
        return sizeof(T) == sizeof(float) ? float_code : double_code;
    }
    return std::is_signed_v<T> ? signed_codes[index] : unsigned_codes[index];
}

template <typename T>
inline constexpr uint8_t data_type = number_code<T>(
    {TARN_DATA_TYPE_UINT8, TARN_DATA_TYPE_UINT16, TARN_DATA_TYPE_UINT32, TARN_DATA_TYPE_UINT64},
    {TARN_DATA_TYPE_INT8, TARN_DATA_TYPE_INT16, TARN_DATA_TYPE_INT32, TARN_DATA_TYPE_INT64},
    TARN_DATA_TYPE_BOOLEAN, TARN_DATA_TYPE_FLOAT, TARN_DATA_TYPE_DOUBLE);

template <typename T>
inline constexpr uint8_t element_type = number_code<T>(
    {MSG_ELM_TYPE_UINT8, MSG_ELM_TYPE_UINT16, MSG_ELM_TYPE_UINT32, MSG_ELM_TYPE_UINT64},
    {MSG_ELM_TYPE_INT8, MSG_ELM_TYPE_INT16, MSG_ELM_TYPE_INT32, MSG_ELM_TYPE_INT64},
    MSG_ELM_TYPE_BOOL, MSG_ELM_TYPE_FLOAT, MSG_ELM_TYPE_DOUBLE);

/** What holds a T on the wire: a bool is a byte that may have any value. */
template <typename T>
using plain = std::conditional_t<std::is_same_v<T, bool>, uint8_t, T>;

template <typename T>
T from_plain(plain<T> value)
{
    if constexpr (std::is_same_v<T, bool>)
    {
        return value != 0;
    }
    else
    {
        return value;
    }
}

} // namespace detail

/** A value, alone or at the head of its list. */
class data_ref : public handle_ref<TARN_DATA>
{
public:
    using handle_ref::handle_ref;
    [[nodiscard]] uint8_t type() const
    {
        return tarn_data_get_type(handle_);
    }
    [[nodiscard]] uint32_t count() const
    {
        return tarn_data_count(handle_);
    }
    [[nodiscard]] data_ref next() const
    {
        return tarn_data_get_next(handle_);
    }
    [[nodiscard]] data_ref at(uint32_t n) const
    {
        return tarn_data_get_at(handle_, n);
    }
    /** The value as a number, converted as the tarn_data_get_as_ functions do. */
    template <typename T>
    [[nodiscard]] std::optional<T> as() const
    {
        constexpr uint8_t code = detail::data_type<T>;
        detail::plain<T> value{};
        bool ok = false;
        // the pointers are to the type that the code says, which may go by another name
        void *const out = &value;
        switch (code)
        {
        case TARN_DATA_TYPE_BOOLEAN:
            ok = tarn_data_get_as_boolean(handle_, static_cast<uint8_t *>(out));
            break;
        case TARN_DATA_TYPE_UINT8:
            ok = tarn_data_get_as_uint8(handle_, static_cast<uint8_t *>(out));
            break;
        case TARN_DATA_TYPE_UINT16:
            ok = tarn_data_get_as_uint16(handle_, static_cast<uint16_t *>(out));
            break;
        case TARN_DATA_TYPE_UINT32:
            ok = tarn_data_get_as_uint32(handle_, static_cast<uint32_t *>(out));
            break;
        case TARN_DATA_TYPE_UINT64:
            ok = tarn_data_get_as_uint64(handle_, static_cast<uint64_t *>(out));
            break;
        case TARN_DATA_TYPE_INT8:
            ok = tarn_data_get_as_int8(handle_, static_cast<int8_t *>(out));
            break;
        case TARN_DATA_TYPE_INT16:
            ok = tarn_data_get_as_int16(handle_, static_cast<int16_t *>(out));
            break;
        case TARN_DATA_TYPE_INT32:
            ok = tarn_data_get_as_int32(handle_, static_cast<int32_t *>(out));
            break;
        case TARN_DATA_TYPE_INT64:
            ok = tarn_data_get_as_int64(handle_, static_cast<int64_t *>(out));
            break;
        case TARN_DATA_TYPE_FLOAT:
            ok = tarn_data_get_as_float(handle_, static_cast<float *>(out));
            break;
        default:
            ok = tarn_data_get_as_double(handle_, static_cast<double *>(out));
            break;
        }
        return ok ? std::optional<T>(detail::from_plain<T>(value)) : std::nullopt;
    }
    /** A string's text, up to its first NUL or its length; valid until the value is set or
     *  destroyed. Nothing for another type. */
    [[nodiscard]] std::optional<std::string_view> text() const
    {
        const char *const start =
            type() == TARN_DATA_TYPE_STRING ? tarn_data_get_str_buffer(handle_) : nullptr;
        if (start == nullptr)
        {
            return std::nullopt;
        }
        const std::string_view all(start, tarn_data_get_str_len(handle_));
        return all.substr(0, all.find('\0'));
    }
};

/** Owns a whole list through its head. */
class data : public owner<data_ref, tarn_data_destroy>
{
public:
    using owner::owner;
    /** A number, or a text (an empty one becomes a single NUL: a string has at least one byte). */
    template <typename T, typename = std::enable_if_t<std::is_arithmetic_v<T>>>
    static data of(T value)
    {
        const auto plain = static_cast<detail::plain<T>>(value);
        return data(tarn_data_alloc(detail::data_type<T>, &plain, nullptr));
    }
    static data of(std::string_view text)
    {
        const std::string_view bytes = text.empty() ? std::string_view("", 1) : text;
        const uint32_t length = const_bytes(bytes).size32();
        return data(tarn_data_alloc(TARN_DATA_TYPE_STRING, bytes.data(), &length));
    }
    /** A list of several: data::list(1, "two", 3.0); empty when memory ran out. */
    template <typename... Values>
    static data list(const Values &...values)
    {
        data all;
        const bool ok = (all.append(of(values)) && ...);
        return ok ? std::move(all) : data();
    }
    /** Append a list, or begin with it. An empty one is a failure, so that a failed creation shows.
     *  @return false and nothing changed, but for tail, which is destroyed */
    bool append(data tail)
    {
        if (!*this && tail)
        {
            *this = std::move(tail);
            return true;
        }
        const bool ok = tail && tarn_data_add_tail(handle_, tail.get());
        if (ok)
        {
            (void)tail.release(); // its owner is the list now
        }
        return ok;
    }
};

// ---- RPC messages --------------------------------------------------------------------------------

/** Walks the elements of a message; see tarn_rpc_msg_read_begin(). Ends with its scope. */
class rpc_message_iter
{
public:
    explicit rpc_message_iter(TARN_RPC_MSG message)
    {
        if (tarn_rpc_msg_data_len(message) != 0)
        {
            (void)tarn_rpc_msg_read_begin(message, &iter_);
        }
    }
    rpc_message_iter(rpc_message_iter &&other) noexcept : iter_(std::exchange(other.iter_, nullptr))
    {
    }
    rpc_message_iter &operator=(rpc_message_iter &&other) noexcept
    {
        std::swap(iter_, other.iter_);
        return *this;
    }
    ~rpc_message_iter()
    {
        tarn_rpc_msg_read_end(&iter_);
    }
    [[nodiscard]] TARN_RPC_MSG_ITER get() const noexcept
    {
        return iter_;
    }
    [[nodiscard]] TARN_RPC_MSG_ITER release() noexcept
    {
        return std::exchange(iter_, nullptr);
    }
    /** True at an element, false behind the last. */
    explicit operator bool() const noexcept
    {
        return iter_ != nullptr;
    }
    void next()
    {
        (void)tarn_rpc_msg_read_next(&iter_);
    }
    [[nodiscard]] uint16_t id() const
    {
        return tarn_rpc_msg_element_id(iter_);
    }
    [[nodiscard]] uint8_t type() const
    {
        return tarn_rpc_msg_element_type(iter_);
    }
    [[nodiscard]] uint32_t child_count() const
    {
        return tarn_rpc_msg_element_child_count(iter_);
    }
    /** The value of an element of exactly this type. */
    template <typename T>
    [[nodiscard]] std::optional<T> value() const
    {
        detail::plain<T> value{};
        uint32_t size = sizeof value;
        const bool ok = type() == detail::element_type<T> &&
                        tarn_rpc_msg_element_value(iter_, &value, &size) == 0;
        return ok ? std::optional<T>(detail::from_plain<T>(value)) : std::nullopt;
    }
    /** The bytes of a string, in the message's data. */
    [[nodiscard]] std::optional<std::string_view> text() const
    {
        const void *start = nullptr;
        uint32_t size = 0;
        const bool ok = type() == MSG_ELM_TYPE_STRING &&
                        tarn_rpc_msg_element_value_ptr(iter_, &start, &size) == 0;
        return ok ? std::optional<std::string_view>({static_cast<const char *>(start), size})
                  : std::nullopt;
    }

private:
    TARN_RPC_MSG_ITER iter_ = nullptr;
};

class rpc_message_ref : public handle_ref<TARN_RPC_MSG>
{
public:
    using handle_ref::handle_ref;
    template <typename T, typename = std::enable_if_t<std::is_arithmetic_v<T>>>
    int write(uint16_t id, T value) const
    {
        const auto plain = static_cast<detail::plain<T>>(value);
        return tarn_rpc_msg_write_element_value(handle_, id, detail::element_type<T>, &plain,
                                                sizeof plain);
    }
    /** A string of these bytes, not inside this message's own data.
     *  @return as tarn_rpc_msg_write_element_value(); -1 for 4 GiB and more */
    int write(uint16_t id, std::string_view text) const
    {
        const const_bytes all(text.empty() ? std::string_view("") : text); // length 0 is "count it"
        return all.size32() == all.size()
                   ? tarn_rpc_msg_write_element_value(handle_, id, MSG_ELM_TYPE_STRING, all.data(),
                                                      all.size32())
                   : -1;
    }
    /** Write an object, or an array, whose children f() writes.
     *  @return 0; else the result of its begin, in which case f is not called, or of its end */
    template <typename F>
    int object(uint16_t id, F &&f) const
    {
        const int begun = tarn_rpc_msg_write_object_begin(handle_, id);
        return begun != 0 ? begun : (f(), tarn_rpc_msg_write_object_end(handle_));
    }
    template <typename F>
    int array(uint16_t id, F &&f) const
    {
        const int begun = tarn_rpc_msg_write_array_begin(handle_, id);
        return begun != 0 ? begun : (f(), tarn_rpc_msg_write_array_end(handle_));
    }
    /** Value of the first element with this id; nothing when there is none, or of another type. */
    template <typename T>
    [[nodiscard]] std::optional<T> read(uint16_t id) const
    {
        detail::plain<T> value{};
        const bool ok = tarn_rpc_msg_read_element(handle_, id, detail::element_type<T>, &value,
                                                  sizeof value, nullptr) == 0;
        return ok ? std::optional<T>(detail::from_plain<T>(value)) : std::nullopt;
    }
    /** The same for a string; its bytes are in the message's data. */
    [[nodiscard]] std::optional<std::string_view> text(uint16_t id) const
    {
        const void *start = nullptr;
        uint32_t size = 0;
        const bool ok =
            tarn_rpc_msg_get_element_ptr(handle_, id, MSG_ELM_TYPE_STRING, &start, &size) == 0;
        return ok ? std::optional<std::string_view>({static_cast<const char *>(start), size})
                  : std::nullopt;
    }
    /** For a walk: for (auto it = message.elements(); it; it.next()). */
    [[nodiscard]] rpc_message_iter elements() const
    {
        return rpc_message_iter(handle_);
    }
};

/** One reference to a message. */
class rpc_message : public owner<rpc_message_ref, tarn_rpc_msg_release>
{
public:
    using owner::owner;
    static rpc_message create()
    {
        return rpc_message(tarn_rpc_msg_create());
    }
    /** One more reference: keeps what a callback has only borrowed. */
    static rpc_message share(rpc_message_ref message)
    {
        const bool ok = message && tarn_rpc_msg_add_ref(message.get()) > 0;
        return rpc_message(ok ? message.get() : nullptr);
    }
};

} // namespace v1
} // namespace tarn

#endif

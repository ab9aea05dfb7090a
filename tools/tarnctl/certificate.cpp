// A reader of DER that trusts nothing: every length is checked against what is there, and nothing
// is followed deeper than the fixed shape of a certificate.

#include "certificate.h"

#include "output.h"
#include "owner.h"

#include "tarn_sys.h"
#include "tarn_util.h"

#include <algorithm>
#include <array>

namespace tarnctl
{
namespace
{

enum tag : uint8_t
{
    tag_integer = 0x02,
    tag_oid = 0x06,
    tag_utc_time = 0x17,
    tag_generalized_time = 0x18,
    tag_sequence = 0x30,
    tag_set = 0x31,
    tag_version = 0xA0,
    tag_any = 0 ///< for the reader
};

/** Takes elements from the front of a row of bytes. */
class der_reader
{
public:
    explicit der_reader(std::string_view bytes) : left_(bytes) {}
    [[nodiscard]] bool is_at_end() const
    {
        return left_.empty();
    }
    [[nodiscard]] uint8_t next_tag() const
    {
        return left_.empty() ? 0 : byte(0);
    }
    /** @return the next element's content; nothing when it has another tag or is not whole */
    std::optional<std::string_view> take(uint8_t wanted)
    {
        if (left_.size() < 2 || (wanted != tag_any && byte(0) != wanted))
        {
            return std::nullopt;
        }
        size_t head = 2;
        size_t length = byte(1);
        if (length >= 0x80)
        {
            const size_t digits = length & 0x7F;
            if (digits == 0 || digits > 4 || left_.size() < 2 + digits)
            {
                return std::nullopt;
            }
            length = 0;
            for (size_t i = 0; i < digits; ++i)
            {
                length = length << 8 | byte(2 + i);
            }
            head += digits;
        }
        if (length > left_.size() - head)
        {
            return std::nullopt;
        }
        const std::string_view content = left_.substr(head, length);
        left_.remove_prefix(head + length);
        return content;
    }

private:
    [[nodiscard]] uint8_t byte(size_t i) const
    {
        return static_cast<uint8_t>(left_[i]);
    }
    std::string_view left_;
};

/** Short name of an attribute type; hex for one that is not among the usual. */
std::string attribute_name(std::string_view oid)
{
    using namespace std::string_view_literals;
    constexpr std::pair<std::string_view, const char *> known[] = {
        {"\x55\x04\x03"sv, "CN"}, {"\x55\x04\x05"sv, "serialNumber"}, {"\x55\x04\x06"sv, "C"},
        {"\x55\x04\x07"sv, "L"},  {"\x55\x04\x08"sv, "ST"},           {"\x55\x04\x0a"sv, "O"},
        {"\x55\x04\x0b"sv, "OU"},
    };
    for (const auto &[bytes, name] : known)
    {
        if (bytes == oid)
        {
            return name;
        }
    }
    return hex(oid);
}

/** A distinguished name: a sequence of sets of sequences of a type and a text. */
std::optional<std::string> name_text(std::string_view name)
{
    std::string text;
    for (der_reader sets(name); !sets.is_at_end();)
    {
        const auto set = sets.take(tag_set);
        der_reader inside(set.value_or(""));
        const auto pair = inside.take(tag_sequence);
        der_reader parts(pair.value_or(""));
        const auto oid = parts.take(tag_oid);
        const auto value = parts.take(tag_any);
        if (!oid || !value)
        {
            return std::nullopt;
        }
        text += (text.empty() ? "" : ", ") + attribute_name(*oid) + "=" + escaped(*value);
    }
    return text;
}

/** "2026-11-22 00:00:00 UTC" of a DER time: YYMMDDhhmmssZ or YYYYMMDDhhmmssZ. */
std::optional<std::string> time_text(der_reader &times)
{
    const bool is_short = times.next_tag() == tag_utc_time;
    const auto content = times.take(is_short ? tag_utc_time : tag_generalized_time);
    if (!content || content->size() != (is_short ? 13 : 15) || content->back() != 'Z')
    {
        return std::nullopt;
    }
    std::string digits(content->substr(0, content->size() - 1));
    if (!std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; }))
    {
        return std::nullopt;
    }
    if (is_short)
    {
        digits.insert(0, digits[0] >= '5' ? "19" : "20");
    }
    return digits.substr(0, 4) + "-" + digits.substr(4, 2) + "-" + digits.substr(6, 2) + " " +
           digits.substr(8, 2) + ":" + digits.substr(10, 2) + ":" + digits.substr(12, 2) + " UTC";
}

} // namespace

std::optional<certificate> read_certificate(std::string_view der)
{
    der_reader outer(der);
    const auto whole = outer.take(tag_sequence);
    der_reader signed_part(whole.value_or(""));
    const auto body = signed_part.take(tag_sequence);
    der_reader parts(body.value_or(""));
    if (parts.next_tag() == tag_version)
    {
        (void)parts.take(tag_version);
    }
    const auto serial = parts.take(tag_integer);
    const auto algorithm = parts.take(tag_sequence);
    const auto issuer = parts.take(tag_sequence);
    const auto validity = parts.take(tag_sequence);
    const auto subject = parts.take(tag_sequence);
    if (!serial || !algorithm || !issuer || !validity || !subject)
    {
        return std::nullopt;
    }
    der_reader times(*validity);
    const auto not_before = time_text(times);
    const auto not_after = time_text(times);
    const auto issuer_text = name_text(*issuer);
    const auto subject_text = name_text(*subject);
    if (!not_before || !not_after || !issuer_text || !subject_text)
    {
        return std::nullopt;
    }
    const size_t zeros = serial->size() > 1 && serial->front() == '\0' ? 1 : 0;
    char now[32] = "";
    (void)tarn_time_format(nullptr, false, "%Y-%m-%d %H:%M:%S UTC", now, sizeof now);
    return certificate{*subject_text, *issuer_text, hex(serial->substr(zeros)),
                       *not_before,   *not_after,   now < *not_before || now > *not_after};
}

std::vector<pem_block> read_pem(std::string_view text)
{
    constexpr std::string_view begin = "-----BEGIN ";
    constexpr std::string_view dashes = "-----";
    std::vector<pem_block> blocks;
    for (size_t at = text.find(begin); at != std::string_view::npos; at = text.find(begin))
    {
        text.remove_prefix(at + begin.size());
        const size_t label_end = text.find(dashes);
        if (label_end == std::string_view::npos)
        {
            break;
        }
        const std::string label(text.substr(0, label_end));
        text.remove_prefix(label_end + dashes.size());
        const size_t end = text.find("-----END " + label);
        if (end == std::string_view::npos)
        {
            break;
        }
        std::string body(text.substr(0, end));
        std::erase_if(body, [](char c) { return c == '\n' || c == '\r' || c == ' ' || c == '\t'; });
        text.remove_prefix(end);
        size_t length = 0;
        const text_owner bytes(reinterpret_cast<char *>(
            body.size() >= 2 ? tarn_base64_decode(body.data(), body.size(), &length) : nullptr));
        if (bytes)
        {
            blocks.push_back({label, std::string(bytes.get(), length)});
        }
    }
    return blocks;
}

} // namespace tarnctl

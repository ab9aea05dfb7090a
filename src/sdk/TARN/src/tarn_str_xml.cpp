// Strings: the five predefined XML entities, in both directions, into new strings and into callers'
// buffers.

#include "tarn_str.h"

#include "tarn_check.h"
#include "tarn_str_internal.h"

#include <cstring>
#include <string_view>

namespace
{

struct entity
{
    char character;
    std::string_view text;
};

constexpr std::array<entity, 5> entities = {{
    {'<', "&lt;"},
    {'>', "&gt;"},
    {'&', "&amp;"},
    {'\'', "&apos;"},
    {'"', "&quot;"},
}};

/** What stands for the character in XML: its entity, or the character itself. */
std::string_view escaped(const char *character)
{
    for (const entity &e : entities)
    {
        if (e.character == *character)
        {
            return e.text;
        }
    }
    return {character, 1};
}

/** Takes the next character, or the entity that begins here; xml moves behind it.
 *  @return false at an '&' that begins no entity */
bool unescape_next(const char *&xml, char &character)
{
    if (*xml != '&')
    {
        character = *xml++;
        return true;
    }
    for (const entity &e : entities)
    {
        if (std::strncmp(xml, e.text.data(), e.text.size()) == 0)
        {
            character = e.character;
            xml += e.text.size();
            return true;
        }
    }
    return false;
}

uint64_t escaped_length(const char *str)
{
    uint64_t length = 0;
    for (; *str != '\0'; ++str)
    {
        length += escaped(str).size();
    }
    return length;
}

} // namespace

char *tarn_str_escape_xml(const char *str)
{
    RVON(str, NULL);
    auto xml_str = tarn::make_text(escaped_length(str) + 1);
    RVON(xml_str, NULL);
    char *out = xml_str.get();
    for (; *str != '\0'; ++str)
    {
        const std::string_view piece = escaped(str);
        std::memcpy(out, piece.data(), piece.size());
        out += piece.size();
    }
    return xml_str.release();
}

char *tarn_str_unescape_xml(const char *xml_str)
{
    RVON(xml_str, NULL);
    auto str = tarn::make_text(uint64_t{std::strlen(xml_str)} + 1);
    RVON(str, NULL);
    for (char *out = str.get(); *xml_str != '\0'; ++out)
    {
        if (!unescape_next(xml_str, *out))
        {
            return nullptr;
        }
    }
    return str.release();
}

int64_t tarn_str_to_xml_str(const char *str, char *xml_str, size_t size)
{
    RVON(str, -1);
    RVON(xml_str, -2);
    RVOF(size > 0, -3);
    size_t written = 0;
    for (; *str != '\0'; ++str)
    {
        const std::string_view piece = escaped(str);
        if (piece.size() > size - written)
        {
            return -4;
        }
        std::memcpy(xml_str + written, piece.data(), piece.size());
        written += piece.size();
    }
    if (written < size)
    {
        xml_str[written] = '\0';
    }
    return static_cast<int64_t>(written);
}

int64_t tarn_str_from_xml_str(const char *xml_str, char *str, size_t size)
{
    // The lines name the arguments after those of the opposite direction, in its order.
    RVON_TEXT(xml_str, -1, "RVON(str,-1)");
    RVON_TEXT(str, -2, "RVON(xml_str,-2)");
    RVOF(size > 0, -3);
    size_t written = 0;
    while (*xml_str != '\0')
    {
        char character = '\0';
        if (!unescape_next(xml_str, character))
        {
            return -5;
        }
        if (written == size)
        {
            return -4;
        }
        str[written++] = character;
    }
    if (written < size)
    {
        str[written] = '\0';
    }
    return static_cast<int64_t>(written);
}

// Errors of OpenSSL: the calling thread's queue, and texts of codes.

#include "tlsu_internal.h"

#include <openssl/err.h>

#include <array>

namespace
{

/** Texts of what SSL_get_error() returns. OpenSSL has none: its own texts are for the large codes
 *  of its queue. */
constexpr std::array<const char *, 13> session_code_texts = {
    "no error",
    "failure in the TLS protocol or the library",
    "more bytes of the peer are needed",
    "bytes have to be sent",
    "a certificate callback has to be called again",
    "failure of the connection",
    "the peer has closed the session",
    "the connection is not complete",
    "no connection has been accepted",
    "an asynchronous operation has not finished",
    "no asynchronous operation can be started",
    "a client hello callback has to be called again",
    "a verify callback has to be called again",
};

} // namespace

namespace tlsu
{

const char *error_text_get(unsigned long code)
{
    if (code < session_code_texts.size())
    {
        return session_code_texts[code];
    }
    const char *const reason = ERR_reason_error_string(code);
    return reason != nullptr ? reason : "unknown error";
}

void errors_print(int32_t level)
{
    char text[256];
    for (unsigned long code = ERR_get_error(); code != 0; code = ERR_get_error())
    {
        ERR_error_string_n(code, text, sizeof text);
        TARN_LOG(level, "%s", text);
    }
}

} // namespace tlsu

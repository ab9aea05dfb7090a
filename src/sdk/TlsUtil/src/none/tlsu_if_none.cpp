// What a build without TLS has in place of the TLS utility: a table that cannot be fetched, so that
// no caller needs to know how the library was built.

#include "tlsu.h"

#include "tarn.h"

int tlsu_if_get(struct tlsu_if *)
{
    TARN_LOG_TRACE("this library was built without TLS");
    return TARN_ERRLN;
}

// Dynamic libraries: the platform's loader behind a handle.

#include "tarn_dll.h"

#include "tarn_modules.h"
#include "tarn_raii.h"

#include <dlfcn.h>

struct tarn_dll
{
    tarn_handle_header header;
    void *library;
};
TARN_ASSERT_RECORD(tarn_dll);

namespace
{

const char *loader_error()
{
    const char *const text = ::dlerror();
    return text != nullptr ? text : "";
}

} // namespace

TARN_DLL tarn_dll_load(const char *filename)
{
    TARN_LOG_DEBUG("dll_name = [%s]", filename != nullptr ? filename : "");
    auto dll = tarn::make_object<tarn_dll>(TARN_HANDLE_TYPE_DLL);
    RVON(dll, TARN_INVALID_HANDLE);
    dll->library = ::dlopen(filename, RTLD_NOW);
    if (dll->library == nullptr)
    {
        // The loader's text, which names the file, stands where one would expect the name.
        TARN_LOG_ERROR("failed to load %s", loader_error());
        return TARN_INVALID_HANDLE;
    }
    return dll.release();
}

TARN_DLL tarn_dll_load_dbg(const char *filename, const char *file, int line)
{
    TARN_LOG_INFO("tarn_dll_load(%s) from [%s:%d]", filename != nullptr ? filename : "", file,
                  line);
    return tarn_dll_load(filename);
}

void *tarn_dll_get_function(TARN_DLL d, const char *symbol)
{
    RVON(d, NULL);
    RVON(symbol, NULL);
    void *const address = ::dlsym(d->library, symbol);
    if (address == nullptr)
    {
        TARN_LOG_TRACE("fail to get function %s, error = %s", symbol, loader_error());
    }
    return address;
}

void tarn_dll_unload(TARN_DLL d)
{
    if (d == nullptr)
    {
        return;
    }
    (void)::dlclose(d->library);
    tarn_mem_free(d);
}

bool tarn_dll_init(void)
{
    TARN_LOG_EMPTY(TARN_LOG_LEVEL_TRACE);
    return true;
}

void tarn_dll_uninit(void)
{
    TARN_LOG_EMPTY(TARN_LOG_LEVEL_TRACE);
}

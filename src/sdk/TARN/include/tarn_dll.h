/** @file
 *  Dynamic libraries.
 *
 *  Threads: any; a library must not be unloaded while others call into it. */
#ifndef TARN_DLL_H
#define TARN_DLL_H

#include "tarn.h"

TARN_BEGIN_DECLS

typedef struct tarn_dll *TARN_DLL;

/** Load a library with all its symbols bound at once.
 *  @param filename  a path, or a name that the loader searches; null is the program itself
 *  @return the handle, released with tarn_dll_unload(); TARN_INVALID_HANDLE when it cannot be
 *          loaded (ERROR, with the loader's text) or memory ran out. */
TARN_API TARN_DLL tarn_dll_load(const char *filename);

/** The same, naming the caller at INFO first. */
TARN_API TARN_DLL tarn_dll_load_dbg(const char *filename, const char *file, int line);

/** Address of a symbol; cast it to the type of the function or object. Null when d or symbol is
 *  null, or the library has none of that name (TRACE). */
TARN_API void *tarn_dll_get_function(TARN_DLL d, const char *symbol);

/** Unload the library and free the handle; null is ignored. */
TARN_API void tarn_dll_unload(TARN_DLL d);

TARN_END_DECLS

#endif

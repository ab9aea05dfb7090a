/** @file
 *  The common header: start-up and teardown of the layer, handles and their generic close, the
 *  check macros and result conventions of all modules, the version.
 *
 *  Life of a program: parse the command line (tarn_process.h), tarn_init(), work, tarn_uninit().
 *  Handles are opaque pointers of a type per object kind; the null pointer is
 *  TARN_INVALID_HANDLE. The module that made an object frees it in its destroy; strings handed in
 *  are copied when kept; strings and buffers handed out belong to the caller (tarn_mem_free()).
 *  Results: creators return a handle or TARN_INVALID_HANDLE; most operations return bool; integer
 *  results are 0, a count or a length, and negative on failure (TARN_ERRLN unless stated).
 *  Time-outs are uint32_t milliseconds: 0 tries once, TARN_INFINITE has no limit. */
#ifndef TARN_H
#define TARN_H

#include "tarn_api.h"
#include "tarn_log.h"
#include "tarn_mem.h"

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#define TARN_VERSION_MAJOR 1
#define TARN_VERSION_MINOR 0
#define TARN_VERSION_PATCH 0
#define TARN_VERSION_STRING "1.0.0"
/** For comparisons: 0x010000 is 1.0.0. */
#define TARN_VERSION_NUMBER                                                                        \
    ((TARN_VERSION_MAJOR << 16) | (TARN_VERSION_MINOR << 8) | TARN_VERSION_PATCH)

/** The value of every handle that stands for nothing. */
#define TARN_INVALID_HANDLE NULL

/** A time-out without limit. */
#define TARN_INFINITE 0xFFFFFFFFu

/** The usual negative failure result: minus the source line, so that a returned code names the
 *  statement that failed. Callers test for a value below 0 only. */
#define TARN_ERROR_LINE_NUMBER (-(int)__LINE__)
#define TARN_ERRLN TARN_ERROR_LINE_NUMBER

/** Buffer size of names that processes meet by (shared objects, pipes), terminator included. */
#define TARN_NAME_MAX 108

TARN_BEGIN_DECLS

/** Type tags: what kind of object a handle is. 19 is not in use. */
enum
{
    TARN_HANDLE_TYPE_CRITICAL_SECTION = 1,
    TARN_HANDLE_TYPE_EVENT = 2,
    TARN_HANDLE_TYPE_FILE = 3,
    TARN_HANDLE_TYPE_LIST = 4,
    TARN_HANDLE_TYPE_MUTEX = 5,
    TARN_HANDLE_TYPE_RWLOCK = 6,
    TARN_HANDLE_TYPE_SEMAPHORE = 7,
    TARN_HANDLE_TYPE_SERIAL = 8,
    TARN_HANDLE_TYPE_SHM = 9,
    TARN_HANDLE_TYPE_SOCKET = 10,
    TARN_HANDLE_TYPE_TIMER = 11,
    TARN_HANDLE_TYPE_THREAD = 12,
    TARN_HANDLE_TYPE_THREAD_POOL = 13,
    TARN_HANDLE_TYPE_DATA = 14,
    TARN_HANDLE_TYPE_IPC = 15,
    TARN_HANDLE_TYPE_REGEX = 16,
    TARN_HANDLE_TYPE_HASH = 17,
    TARN_HANDLE_TYPE_DLL = 18,
    TARN_HANDLE_TYPE_PIPE = 20,
    TARN_HANDLE_TYPE_RPC = 21,
    TARN_HANDLE_TYPE_MD5 = 22,
    TARN_HANDLE_TYPE_DIR = 23,
    TARN_HANDLE_TYPE_SHMX = 24,
    TARN_HANDLE_TYPE_RINGBUF = 25,
    TARN_HANDLE_TYPE_MHASH = 26
};

/** What every object begins with; written at creation, never changed. */
typedef struct tarn_handle_header
{
    uint16_t size; /**< the object's own allocation size in bytes */
    uint16_t type; /**< a TARN_HANDLE_TYPE_* tag */
} tarn_handle_header;

/** Start all modules, or count one more user of a started layer.
 *  Call it from the main thread, after the command line was parsed and before any thread runs.
 *  @return true; false when a module failed to start (logged at FATAL with its position in the
 *          start-up order): nothing is counted then and a later call starts again. */
TARN_API bool tarn_init(void);

/** Count one user less; the last one tears all modules down. Call it from the main thread when
 *  all other threads of the layer have been stopped. A call without a start-up leaves the count at
 *  -1, so that the next tarn_init() starts nothing. */
TARN_API void tarn_uninit(void);

/** Release any object by its type tag: what its own destroy, close or stop does.
 *  @param handle  any handle of the layer; dangling afterwards; null and unknown kinds are
 *                 ignored
 *  Threads: as the destroy function of that kind. */
TARN_API void tarn_close_handle(void *handle);

/** The same, naming the caller at INFO first; what TARN_CLOSE_HANDLE is in a debug build. */
TARN_API void tarn_close_handle_dbg(void *handle, const char *file, int line, const char *func);

/** Version of the library that is linked, as "1.0.0". Static text. */
TARN_API const char *tarn_version(void);

TARN_END_DECLS

/** Release an object; a build with TARN_DEBUG defined logs the caller of each close. */
#ifdef TARN_DEBUG
#define TARN_CLOSE_HANDLE(handle)                                                                  \
    tarn_close_handle_dbg((handle), TARN_FILE_NAME, __LINE__, __func__)
#else
#define TARN_CLOSE_HANDLE(handle) tarn_close_handle(handle)
#endif

/* Check macros. A failing check logs its own source text at DEBUG, "RVON(buf,NULL) failed", and
 * then leaves: RV* return the value v, RO* return nothing, B* leave the enclosing do-once block
 * for the clean-up code behind it. The condition is evaluated exactly once.
 *
 * B* break out of the innermost loop or switch, so they never stand inside one of their own. The
 * text is taken with # in the outermost macro, where arguments are not expanded yet; it goes out
 * as an argument, never as a format, because conditions may contain a percent sign. */
#define TARN_CHECK_FAILED(text) TARN_LOG(TARN_LOG_LEVEL_DEBUG, "%s", text " failed")

#define RVON(p, v)                                                                                 \
    do                                                                                             \
    {                                                                                              \
        if (!(p))                                                                                  \
        {                                                                                          \
            TARN_CHECK_FAILED("RVON(" #p "," #v ")");                                              \
            return v;                                                                              \
        }                                                                                          \
    } while (0)

#define RVOF(cond, v)                                                                              \
    do                                                                                             \
    {                                                                                              \
        if (!(cond))                                                                               \
        {                                                                                          \
            TARN_CHECK_FAILED("RVOF(" #cond "," #v ")");                                           \
            return v;                                                                              \
        }                                                                                          \
    } while (0)

#define RVOT(cond, v)                                                                              \
    do                                                                                             \
    {                                                                                              \
        if (cond)                                                                                  \
        {                                                                                          \
            TARN_CHECK_FAILED("RVOT(" #cond "," #v ")");                                           \
            return v;                                                                              \
        }                                                                                          \
    } while (0)

#define RVOZ(x, v)                                                                                 \
    do                                                                                             \
    {                                                                                              \
        if ((x) == 0)                                                                              \
        {                                                                                          \
            TARN_CHECK_FAILED("RVOZ(" #x "," #v ")");                                              \
            return v;                                                                              \
        }                                                                                          \
    } while (0)

#define RON(p)                                                                                     \
    do                                                                                             \
    {                                                                                              \
        if (!(p))                                                                                  \
        {                                                                                          \
            TARN_CHECK_FAILED("RON(" #p ")");                                                      \
            return;                                                                                \
        }                                                                                          \
    } while (0)

#define ROT(cond)                                                                                  \
    do                                                                                             \
    {                                                                                              \
        if (cond)                                                                                  \
        {                                                                                          \
            TARN_CHECK_FAILED("ROT(" #cond ")");                                                   \
            return;                                                                                \
        }                                                                                          \
    } while (0)

#define BON(p)                                                                                     \
    if (!(p))                                                                                      \
    {                                                                                              \
        TARN_CHECK_FAILED("BON(" #p ")");                                                          \
        break;                                                                                     \
    }                                                                                              \
    else                                                                                           \
        (void)0

#define BOF(cond)                                                                                  \
    if (!(cond))                                                                                   \
    {                                                                                              \
        TARN_CHECK_FAILED("BOF(" #cond ")");                                                       \
        break;                                                                                     \
    }                                                                                              \
    else                                                                                           \
        (void)0

#define BOT(cond)                                                                                  \
    if (cond)                                                                                      \
    {                                                                                              \
        TARN_CHECK_FAILED("BOT(" #cond ")");                                                       \
        break;                                                                                     \
    }                                                                                              \
    else                                                                                           \
        (void)0

#endif

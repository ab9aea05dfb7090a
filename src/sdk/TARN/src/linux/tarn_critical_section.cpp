// Critical sections: recursive in-process locks.

#include "tarn_critical_section.h"

#include "tarn_modules.h"
#include "tarn_raii.h"

#include <pthread.h>

struct tarn_critical_section
{
    tarn_handle_header header;
    pthread_mutex_t mutex;
    pthread_mutexattr_t attributes;
};
TARN_ASSERT_RECORD(tarn_critical_section);

TARN_CRITICAL_SECTION tarn_critical_section_create(void)
{
    auto cs = tarn::make_object<tarn_critical_section>(TARN_HANDLE_TYPE_CRITICAL_SECTION);
    RVON(cs, TARN_INVALID_HANDLE);
    // Neither of these fails on Linux for these arguments.
    (void)pthread_mutexattr_init(&cs->attributes);
    (void)pthread_mutexattr_settype(&cs->attributes, PTHREAD_MUTEX_RECURSIVE);
    (void)pthread_mutex_init(&cs->mutex, &cs->attributes);
    return cs.release();
}

void tarn_critical_section_destroy(TARN_CRITICAL_SECTION cs)
{
    if (cs == nullptr)
    {
        return;
    }
    (void)pthread_mutex_destroy(&cs->mutex);
    (void)pthread_mutexattr_destroy(&cs->attributes);
    tarn_mem_free(cs);
}

void tarn_critical_section_enter(TARN_CRITICAL_SECTION cs)
{
    if (cs != nullptr)
    {
        (void)pthread_mutex_lock(&cs->mutex);
    }
}

void tarn_critical_section_leave(TARN_CRITICAL_SECTION cs)
{
    if (cs != nullptr)
    {
        (void)pthread_mutex_unlock(&cs->mutex);
    }
}

bool tarn_critical_section_try_enter(TARN_CRITICAL_SECTION cs)
{
    return cs != nullptr && pthread_mutex_trylock(&cs->mutex) == 0;
}

void tarn_critical_section_enter_dbg(const char *file, int line, const char *func,
                                     TARN_CRITICAL_SECTION cs)
{
    TARN_LOG_DEBUG("%s %d %s: crit_sect_enter %p 0", file, line, func, static_cast<void *>(cs));
    tarn_critical_section_enter(cs);
    TARN_LOG_DEBUG("%s %d %s: crit_sect_enter %p +++", file, line, func, static_cast<void *>(cs));
}

void tarn_critical_section_leave_dbg(const char *file, int line, const char *func,
                                     TARN_CRITICAL_SECTION cs)
{
    tarn_critical_section_leave(cs);
    TARN_LOG_DEBUG("%s %d %s: crit_sect_leave %p ---", file, line, func, static_cast<void *>(cs));
}

bool tarn_critical_section_init(void)
{
    return true;
}

void tarn_critical_section_uninit(void) {}

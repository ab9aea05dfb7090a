/* A user's program in plain C11: what an installed libtarn must let it build, link and do. */

#include "tarn.h"
#include "tarn_event.h"
#include "tarn_thread.h"

#include <stdio.h>
#include <string.h>

static void *ring(void *event, void *unused)
{
    (void)unused;
    tarn_event_set((TARN_EVENT)event);
    return NULL;
}

/* A loop thread sets an event that this thread waits for. */
static int event_arrives_from_thread(void)
{
    TARN_EVENT event = tarn_event_create(true, false);
    TARN_THREAD thread = tarn_thread_start(ring, event, NULL, 10, "ring");
    int arrived = thread != TARN_INVALID_HANDLE && tarn_event_wait(event, 10000);

    if (thread != TARN_INVALID_HANDLE)
    {
        tarn_thread_stop(thread);
    }
    TARN_CLOSE_HANDLE(event);
    return arrived;
}

int main(void)
{
    if (strcmp(tarn_version(), TARN_VERSION_STRING) != 0)
    {
        fprintf(stderr, "header %s, library %s\n", TARN_VERSION_STRING, tarn_version());
        return 1;
    }
    if (!tarn_init())
    {
        fprintf(stderr, "tarn_init failed\n");
        return 1;
    }
    int arrived = event_arrives_from_thread();
    tarn_uninit();
    printf("C consumer, library %s: %s\n", tarn_version(), arrived ? "ok" : "no event");
    return arrived ? 0 : 1;
}

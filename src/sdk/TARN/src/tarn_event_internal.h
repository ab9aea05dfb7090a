// Private: exact queries of an event; for the thread module and the tests.
#ifndef TARN_EVENT_INTERNAL_H
#define TARN_EVENT_INTERNAL_H

#include "tarn_event.h"

namespace tarn
{

/** True when the event is set, without clearing it; waits for the event's mutex, so that a stop
 *  request is never missed as a zero-time-out wait may miss it. */
bool event_is_set(TARN_EVENT ev);

/** Hold and release an event's mutex, for tests of the zero-time-out shortcut. */
void event_lock(TARN_EVENT ev);
void event_unlock(TARN_EVENT ev);

} // namespace tarn

#endif

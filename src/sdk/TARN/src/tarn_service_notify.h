// Private: what a process tells the service manager that started it; for the process frame and the
// watchdog.
#ifndef TARN_SERVICE_NOTIFY_H
#define TARN_SERVICE_NOTIFY_H

namespace tarn
{

/** Send one state, such as "READY=1", to the socket that NOTIFY_SOCKET names: an absolute path, or a
 *  name in the abstract space behind '@'. Nothing without that variable; a failure is a WARN line.
 *  Waits at most a second for a manager that does not read. */
void service_notify(const char *state);

/** Send "WATCHDOG=1", if the manager asked this very process for it: WATCHDOG_USEC is set, and
 *  WATCHDOG_PID, where it is set, is our process id.
 *  @return true when it did */
bool service_notify_watchdog();

} // namespace tarn

#endif

// Private: the signal half of the process frame; for tarn_process.cpp.
#ifndef TARN_PROCESS_INTERNAL_H
#define TARN_PROCESS_INTERNAL_H

namespace tarn
{

/** Install the signal handlers, create the exit event and start the relay, each if it is not there
 *  yet.
 *  @return false when one of them fails */
bool start_signals();

/** Stop the relay and destroy the exit event. The handlers stay: a termination signal still
 *  counts, and still ends the process when it must. */
void stop_signals();

/** Start the relay again in the child of a fork, if it ran in the parent. Cheap otherwise. */
void restart_signal_relay();

/** True: a termination signal takes its default action. */
void use_default_signal_action(bool yes);

} // namespace tarn

#endif

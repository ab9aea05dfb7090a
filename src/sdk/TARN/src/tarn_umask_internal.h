// Private: the one window in which the process's umask is 0; for system calls that take a mode but
// leave no descriptor to correct it on.
#ifndef TARN_UMASK_INTERNAL_H
#define TARN_UMASK_INTERNAL_H

#include "tarn_raii.h"

namespace tarn
{

/** Sets the umask to 0 for its scope. The umask belongs to the whole process: overlapping windows
 *  would leave it at 0 for good, so one lock serves all of them. Keep the scope short; what other
 *  threads create meanwhile outside the layer sees the umask 0 too. */
class [[nodiscard]] umask_window
{
public:
    umask_window();
    umask_window(const umask_window &) = delete;
    umask_window &operator=(const umask_window &) = delete;
    ~umask_window();

private:
    lock_guard lock_;
    unsigned old_mask_;
};

} // namespace tarn

#endif

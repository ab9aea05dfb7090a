// The one window in which the process's umask is 0.

#include "tarn_umask_internal.h"

#include <sys/stat.h>

namespace
{

constinit tarn::static_mutex umask_lock;

} // namespace

namespace tarn
{

umask_window::umask_window() : lock_(umask_lock), old_mask_(::umask(0)) {}

umask_window::~umask_window()
{
    (void)::umask(old_mask_);
}

} // namespace tarn

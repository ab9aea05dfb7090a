// Private: lock files in directories that every user may write to; for the instance lock and serial
// ports.
#ifndef TARN_LOCK_FILE_INTERNAL_H
#define TARN_LOCK_FILE_INTERNAL_H

#include "tarn_os.h"

namespace tarn
{

/** Open a lock file, or create it with mode 0666 whatever the umask. Nothing is locked yet.
 *  Somebody else may have put something at the path: links are not followed, and what is opened is
 *  a regular file with no second name. A file that another user left unreadable is taken over when
 *  the process may do that. The file is never removed: a second process could then lock a new one
 *  while the old one is still held.
 *  @return the descriptor, close-on-exec, and none of the numbers of the standard streams, which
 *          daemon(3) would replace, and so unlock; empty on failure, with errno (EINVAL for what is
 *          no such file). */
unique_fd open_lock_file(const char *path);

} // namespace tarn

#endif

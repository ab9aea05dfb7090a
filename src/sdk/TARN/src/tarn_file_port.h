// Private: what the file module needs of the kernel; for tarn_file.cpp, tarn_file_monitor.cpp, the
// log level file, and the util and MD5 modules. Written in linux/tarn_file_linux.cpp.
//
// All calls repeat after EINTR and leave errno as the failing call set it. Descriptors are
// close-on-exec.
#ifndef TARN_FILE_PORT_H
#define TARN_FILE_PORT_H

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace tarn
{

/** Open for reading. Does not block on a pipe without writers.
 *  @return descriptor, or -1 */
int file_open_read(const char *path);

/** Open for writing, created with mode 0666 less the umask and emptied. Does not block: a pipe
 *  without readers is an error.
 *  @return descriptor, or -1 */
int file_open_write(const char *path);

/** tmpfile().
 *  @return the stream, or null */
std::FILE *file_open_tmp();

/** Bytes that a regular file holds now; 0 for everything else. */
uint64_t file_size_hint(int fd);

/** Read up to n bytes; may block.
 *  @return bytes, 0 at the end, -1 on failure */
int64_t file_read_some(int fd, void *buf, size_t n);

/** Write all n bytes; may block.
 *  @return false on failure; a part may have been written */
bool file_write_all(int fd, const void *buf, size_t n);

/** Close and tell whether everything that was written has been taken. */
bool file_close_written(int fd);

/** stat(); follows links.
 *  @param size_bytes  written on success
 *  @return 0, or -1 */
int file_stat(const char *path, uint64_t *size_bytes);

int file_access(const char *path, int mode);
void file_sync_all();

/** A watch for modification of the file at path.
 *  @return a non-blocking descriptor, or -1 after an ERROR line */
int file_watch_open(const char *path);

/** Take all events that wait, in pieces of 4096 bytes; never blocks.
 *  @return true when there were any */
bool file_watch_drain(int fd);

} // namespace tarn

#endif

/** @file
 *  Files: handles over C library streams, whole files in one call, access tests, and a monitor
 *  that calls back when a file is modified.
 *
 *  Paths are used as they stand; links are followed. Descriptors are close-on-exec.
 *  Threads: a handle by one thread at a time; the functions that take a path from any thread. */
#ifndef TARN_FILE_H
#define TARN_FILE_H

#include "tarn.h"

TARN_BEGIN_DECLS

typedef struct tarn_file *TARN_FILE;
typedef struct tarn_file_monitor *TARN_FILE_MONITOR;

/** Open a file with a mode string of fopen().
 *  @return the handle, closed with tarn_file_close(); TARN_INVALID_HANDLE when the file cannot be
 *          opened (ERROR), path or mode is null, or memory ran out. */
TARN_API TARN_FILE tarn_file_open(const char *path, const char *mode);

/** Open an unnamed temporary file for reading and writing; it is gone when closed.
 *  @return as tarn_file_open(). */
TARN_API TARN_FILE tarn_file_open_tmpfile(void);

/** Close the stream and free the handle; null is ignored. What the stream still held may fail to
 *  be written unseen: flush through tarn_file_get_fp() first where that matters. */
TARN_API void tarn_file_close(TARN_FILE f);

/** The stream, a FILE * of the C library; owned by the handle. Null for null. */
TARN_API void *tarn_file_get_fp(TARN_FILE f);

/** Move the position.
 *  @param whence  SEEK_SET, SEEK_CUR or SEEK_END
 *  @return 0; -1 on failure. */
TARN_API int tarn_file_seek(TARN_FILE f, int64_t offset, int whence);

/** Read or write up to n bytes.
 *  @param done  may be null; the bytes moved, written only when the result is true
 *  @return true when at least one byte was moved. */
TARN_API bool tarn_file_read(TARN_FILE f, void *buf, size_t n, size_t *done);
TARN_API bool tarn_file_write(TARN_FILE f, const void *buf, size_t n, size_t *done);

/** fscanf() and fprintf() on the handle; their results, -1 for a null handle. */
TARN_API int tarn_file_scanf(TARN_FILE f, const char *format, ...) TARN_SCANF(2, 3);
TARN_API int tarn_file_printf(TARN_FILE f, const char *format, ...) TARN_PRINTF(2, 3);

/** Read a seekable file from its beginning to its end; the position is kept.
 *  @param size_out  may be null; the bytes read
 *  @return a buffer with a NUL behind the bytes, freed by the caller with tarn_mem_free(); a file
 *          without a size (a pipe) reads as empty; null when memory ran out. */
TARN_API void *tarn_file_read_to_buffer(TARN_FILE f, size_t *size_out);

/** Read a file whole, also one whose size is not known beforehand (/proc). A pipe is read until
 *  its writers have closed it; one that nobody writes reads as empty.
 *  @param size_out  may be null; the bytes read
 *  @return a buffer with a NUL behind the bytes, freed by the caller with tarn_mem_free(); null
 *          when the file cannot be opened or read to its end, or memory ran out. */
TARN_API void *tarn_file_load(const char *path, size_t *size_out);

/** Write a file whole, replacing what was there; missing directories are created.
 *  @return true when every byte has been handed to the system; false on any failure (a path that
 *          cannot be opened is logged at ERROR), for size 0, which leaves an empty file, and for a
 *          pipe that nobody reads. After a failure the file may hold a part. */
TARN_API bool tarn_file_write_buffer(const char *path, const void *buf, size_t size);

/** Remove a file.
 *  @return true; false when it cannot be removed (ERROR). */
TARN_API bool tarn_file_delete(const char *path);

/** What the calling process may do, as access() tells; false for null. */
TARN_API bool tarn_file_exists(const char *path);
TARN_API bool tarn_file_is_readable(const char *path);
TARN_API bool tarn_file_is_writable(const char *path);

/** access() itself: mode is F_OK or any of R_OK, W_OK, X_OK.
 *  @return 0; -1 when refused, and for null. */
TARN_API int tarn_file_access(const char *path, int mode);

/** Size of a file in bytes; 0 when it cannot be looked up. */
TARN_API uint64_t tarn_file_size(const char *path);

/** Have all file systems written back. Blocks until the system has done so. */
TARN_API void tarn_file_sync(void);

/** Called on the monitor's thread when the file was modified.
 *  @param path   the monitored path; valid until the monitor is stopped
 *  @param event  always 0 */
typedef void (*tarn_file_monitor_callback)(TARN_FILE_MONITOR fm, const char *path, uint32_t event,
                                           void *user_arg);

/** Watch a file: however often it is written, the callback is called at most once a second.
 *  The watch belongs to the file that stands at the path now. Writing and truncating it count as
 *  modification. When it is deleted, or another file is renamed over it, the callback is called
 *  once more, as soon as nobody has it open, and then never again: stop the monitor and start a new
 *  one to watch the new file.
 *  @param file_name  of an existing file; copied
 *  @return the monitor, stopped with tarn_file_monitor_stop(); null when an argument is missing or
 *          empty, the file is not there, or the system refuses (ERROR). */
TARN_API TARN_FILE_MONITOR tarn_file_monitor_start(const char *file_name,
                                                   tarn_file_monitor_callback callback_function,
                                                   void *user_arg);

/** Stop watching and free the monitor; null is reported at DEBUG. Waits for a callback that runs;
 *  from inside the callback it returns at once, and the monitor is freed when the callback
 *  returns. No callback is made afterwards. Of callbacks that stop one another's monitors one does
 *  not wait, and the other's thread is cancelled (tarn_thread_stop()). */
TARN_API void tarn_file_monitor_stop(TARN_FILE_MONITOR fm);

TARN_END_DECLS

#endif

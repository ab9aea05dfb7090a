/** @file
 *  Directories: creation with all parents, path splitting, listing, free space.
 *
 *  Both '/' and '\\' separate components when a path is split; only '/' does when directories are
 *  made. Texts that a function returns without saying otherwise belong to the calling thread and
 *  stay valid until it calls the same function again, or ends.
 *  Threads: a directory handle by one thread at a time; the rest from any thread. */
#ifndef TARN_DIR_H
#define TARN_DIR_H

#include "tarn.h"

TARN_BEGIN_DECLS

typedef struct tarn_dir *TARN_DIR;
typedef struct tarn_dir_itor *TARN_DIR_ITOR;

/** Create every missing directory along a path.
 *  @param dir_path  below 4095 bytes; not null
 *  @param mode      permissions of what is created, exactly, whatever the umask; 0: 0775. The set-group
 *                   bit that a parent hands down stays
 *  @return 0, also when the whole path exists (even when its last component is a file); -1 when
 *          one cannot be created (ERROR), for null, and for a path that is too long. */
TARN_API int tarn_dir_create(const char *dir_path, uint32_t mode);

/** Create the directories that a file's path needs; result as tarn_dir_create(). */
TARN_API int tarn_dir_create_for_file(const char *path);

/** True when the path leads to a directory. */
TARN_API bool tarn_dir_is_exist(const char *path);

/** What stands before the last separator: "a/b" of "a/b/file". "." when there is no separator, or
 *  only one at the very beginning. Null for null, or when memory ran out. */
TARN_API const char *tarn_dir_dirname(const char *path);

/** What stands behind the last separator: "file" of "a/b/file". Empty when there is no separator,
 *  or only one at the very beginning. Null for null, or when memory ran out. */
TARN_API const char *tarn_dir_basename(const char *path);

/** '/'. */
TARN_API char tarn_dir_separator(void);

/** Open a directory for listing.
 *  @return the handle, closed with tarn_dir_close(); TARN_INVALID_HANDLE when it cannot be opened
 *          (ERROR) or memory ran out. */
TARN_API TARN_DIR tarn_dir_open(const char *path);

/** Close the directory; null is ignored. Its iterators must have ended. */
TARN_API void tarn_dir_close(TARN_DIR d);

/** Begin a listing at the first entry, in the order that the file system gives. "." and ".." are
 *  left out.
 *  @return an iterator, which ends with tarn_dir_read_next() or tarn_dir_read_end(); null when the
 *          directory is empty or memory ran out. */
TARN_API TARN_DIR_ITOR tarn_dir_read_begin(TARN_DIR d);

/** Move on to the next entry.
 *  @return the iterator; null at the end, where the iterator is freed; null, with a WARN line and
 *          the iterator still alive, when it belongs to another directory. */
TARN_API TARN_DIR_ITOR tarn_dir_read_next(TARN_DIR d, TARN_DIR_ITOR itor);

/** End a listing early and free the iterator, unless it belongs to another directory (WARN). */
TARN_API void tarn_dir_read_end(TARN_DIR d, TARN_DIR_ITOR itor);

/** The entry's type; a symbolic link, device, socket or pipe is neither. */
TARN_API bool tarn_dir_itor_is_directory(TARN_DIR_ITOR itor);
TARN_API bool tarn_dir_itor_is_file(TARN_DIR_ITOR itor);

/** The entry's name; valid until the iterator moves. */
TARN_API const char *tarn_dir_itor_name(TARN_DIR_ITOR itor);

/** The directory's path, '/', and the entry's name, cut at 4095 bytes. */
TARN_API const char *tarn_dir_itor_path_name(TARN_DIR_ITOR itor);

/** Free bytes of the file system that holds a path, those kept for the superuser included; 0 when
 *  it cannot be asked (ERROR). */
TARN_API uint64_t tarn_dir_free_space_size(const char *path);

TARN_END_DECLS

#endif

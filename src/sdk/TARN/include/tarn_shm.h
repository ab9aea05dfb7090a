/** @file
 *  Shared memory objects: a named area of memory that several processes attach.
 *
 *  One process creates an object, others open it by its name; each sees the area at an address of
 *  its own. While the creating handle lives no other process can create the name. Behind a name
 *  stand a file "TARN_SHM_NAME" in /dev/shm (in /tmp where that directory is missing), locked by
 *  the creator, and a System V segment. Any local user may open and write both, so what is read
 *  from the area is foreign data.
 *  A creator that dies leaves both behind; the next creation of the name replaces them, and
 *  processes that still have the old area attached keep it to themselves.
 *  Sizes in bytes. Names: 1 to 107 characters without '/'.
 *  Threads: any. Creations and destructions in one process are done one after the other. */
#ifndef TARN_SHM_H
#define TARN_SHM_H

#include "tarn.h"

TARN_BEGIN_DECLS

typedef struct tarn_shm *TARN_SHM;

/** Create an object, filled with zeros.
 *  @param name  copied
 *  @param size  of the area, 0 to 0xFFFFFFFE
 *  @return the handle; TARN_INVALID_HANDLE when the name is no good, this or another process has it
 *          created, the system refuses (WARN or ERROR) or memory ran out.
 *  Blocking: when the file system is full, until the files that nobody uses any more have been
 *  removed. */
TARN_API TARN_SHM tarn_shm_create(const char *name, uint32_t size);

/** Open an object that another handle, usually another process's, created.
 *  @return the handle; TARN_INVALID_HANDLE when name is null, too long or stands for none (TRACE),
 *          or what stands there is no such object (ERROR). */
TARN_API TARN_SHM tarn_shm_open(const char *name);

/** Detach from the area and free the handle; the creating handle also removes the object's name,
 *  while processes that have it open keep the area.
 *  @return true; false for null. */
TARN_API bool tarn_shm_destroy(TARN_SHM shm);

/** Address of the area, 8-aligned; valid as long as the handle; null for null. */
TARN_API void *tarn_shm_buffer(TARN_SHM shm);

/** Size of the area as given at its creation; 0 for null. */
TARN_API uint32_t tarn_shm_size(TARN_SHM shm);

/** Remove the file of a name and leave the segment alone: the object cannot be opened any more, and
 *  can be created anew.
 *  @return true when there was one and it is gone; false otherwise, and when the name is no good.
 *          */
TARN_API bool tarn_shm_remove_file(const char *name);

TARN_END_DECLS

#endif

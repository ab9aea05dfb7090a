/** @file
 *  MD5 digests (RFC 1321) of buffers, streams and files. To tell damaged data from whole data, not
 *  to tell friend from foe.
 *
 *  A digest is TARN_MD5_DIGEST_LENGTH bytes; as text 32 lower-case hex digits and a NUL. A text
 *  buffer has to be larger than 2 * TARN_MD5_DIGEST_LENGTH.
 *  Functions that write text return 0; -1 when what is to be digested is missing; -2 when the text
 *  buffer is missing or too small. Outputs are written on success only.
 *  Threads: any; callers serialise the use of one context. Only tarn_md5_file() blocks. */
#ifndef TARN_MD5_H
#define TARN_MD5_H

#include "tarn.h"

TARN_BEGIN_DECLS

#define TARN_MD5_DIGEST_LENGTH 16

typedef struct tarn_md5 *TARN_MD5;

/** Create a context, ready for its first message.
 *  @return the handle, destroyed with tarn_md5_destroy(); TARN_INVALID_HANDLE when memory ran
 *          out. */
TARN_API TARN_MD5 tarn_md5_create(void);

/** Destroy a context; null is ignored. */
TARN_API void tarn_md5_destroy(TARN_MD5 ctx);

/** Add bytes to the message.
 *  @param data  may be null when len is 0
 *  @return true; false for null. */
TARN_API bool tarn_md5_update(TARN_MD5 ctx, const void *data, size_t len);

/** End the message and hand out its digest. The context then stands at the start of a new one.
 *  @param digest  receives TARN_MD5_DIGEST_LENGTH bytes
 *  @return true; false for null. */
TARN_API bool tarn_md5_final(TARN_MD5 ctx, uint8_t *digest);

/** The same, as text.
 *  @return 0, -1, -2 as above; after a failure the message goes on. */
TARN_API int tarn_md5_final_str(TARN_MD5 ctx, char *text, size_t size);

/** Digest of a buffer, as text.
 *  @param data  may be null when len is 0
 *  @return 0, -1, -2 as above. */
TARN_API int tarn_md5_str(const void *data, size_t len, char *text, size_t size);

/** Digest of a file, as text. Blocks while it reads.
 *  @return 0, -1, -2 as above; any other negative value when the file cannot be opened or read to
 *          its end, or memory ran out. */
TARN_API int tarn_md5_file(const char *path, char *md5_str, size_t md5_str_size);

TARN_END_DECLS

#endif

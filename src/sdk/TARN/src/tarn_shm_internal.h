// Private: layout and insides of shared memory objects; for tarn_share_memory*.cpp, the modules
// that live in such objects, and the tests.
#ifndef TARN_SHM_INTERNAL_H
#define TARN_SHM_INTERNAL_H

#include "tarn_shm.h"

#include <cstddef>
#include <cstdint>

namespace tarn
{

/** What a segment begins with. */
struct shm_segment_header
{
    uint32_t flag; ///< shm_flag; written last
    uint32_t size; ///< of the area behind this header
};
static_assert(sizeof(shm_segment_header) == 8 && offsetof(shm_segment_header, flag) == 0 &&
              offsetof(shm_segment_header, size) == 4);

inline constexpr uint32_t shm_flag = 0x80106513;
inline constexpr int shm_project = 82; ///< for ftok(), 'R'
inline constexpr size_t shm_max_name = 107;
inline constexpr char shm_file_prefix[] = "TARN_SHM_";

/** Directory of the backing files. */
const char *shm_root();

/** True when the process that created the segment has ended or the segment has been removed: nobody
 *  serves it any more. One or two system calls. */
bool shm_is_abandoned(TARN_SHM shm);

/** Remove the backing files under a directory that no process locks or holds open.
 *  @param own_fd  file that stays in any case; -1: none */
void shm_remove_unused_files(const char *root, int own_fd);

} // namespace tarn

#endif

// Private: standing indexes of a multi-index hash; for tarn_mhash.cpp and its test.
#ifndef TARN_MHASH_INTERNAL_H
#define TARN_MHASH_INTERNAL_H

#include "tarn_mhash.h"

namespace tarn
{

/** Give the set an index that is kept up with every change and makes lookups by this function as
 *  fast as those of a hash table. Lookups of the public interface deliberately leave none behind.
 *  @return false when memory ran out. */
bool mhash_register_index(TARN_MHASH h, tarn_mhash_key_func key_func);

} // namespace tarn

#endif

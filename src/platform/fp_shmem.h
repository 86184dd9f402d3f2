// Stand-in for the platform's shared-memory library: the fast path's segment
// is a POSIX shared-memory object, mapped read-only.
#pragma once

#include <cstddef>

namespace cpa {

// Maps `size` bytes of the shared-memory object "/" + `name` read-only.
// Returns null when the object is absent or smaller than `size`. `addr` is a
// placement hint (null: no preference). Unmap with munmap(result, size).
void* fp_shmem_mmap(const char* name, void* addr, size_t size);

}  // namespace cpa

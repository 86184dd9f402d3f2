// Stand-in for the platform's shared-memory library: the fast path's segment
// is a POSIX shared-memory object, mapped read-only.
#pragma once

#include <cstddef>

#include "platform/scoped_fd.h"

namespace cpa {

enum class ShmemStatus { kMapped, kAbsent, kUntrusted };

// A mapping and the descriptor kept to re-check the object's size.
struct ShmemMapping {
  ShmemStatus status = ShmemStatus::kAbsent;
  ScopedFd fd;
  void* addr = nullptr;
};

// Maps `size` bytes of the shared-memory object "/" + `name` read-only. Only
// an object owned by root and writable by no one else is mapped (kUntrusted
// otherwise); an absent object or one smaller than `size` is kAbsent. Unmap
// with munmap(addr, size).
ShmemMapping fp_shmem_map(const char* name, size_t size);

// Whether the object behind `fd` still holds `size` bytes: reading a mapped
// page past its end would raise SIGBUS.
bool fp_shmem_holds(int fd, size_t size);

}  // namespace cpa

#include "platform/fp_shmem.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <string>
#include <utility>

namespace cpa {
namespace {

// Anyone else who may write the object could forge the counters or shrink it.
bool trusted(const struct stat& st) { return st.st_uid == 0 && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0; }

}  // namespace

ShmemMapping fp_shmem_map(const char* name, size_t size) {
  const std::string path = std::string("/") + name;
  ShmemMapping mapping;
  ScopedFd fd(shm_open(path.c_str(), O_RDONLY | O_CLOEXEC, 0));
  struct stat st{};
  if (!fd.valid() || fstat(fd.get(), &st) != 0) return mapping;
  if (!trusted(st)) {
    mapping.status = ShmemStatus::kUntrusted;
    return mapping;
  }
  if (static_cast<size_t>(st.st_size) < size) return mapping;
  void* addr = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd.get(), 0);
  if (addr == MAP_FAILED) return mapping;
  mapping = {ShmemStatus::kMapped, std::move(fd), addr};
  return mapping;
}

bool fp_shmem_holds(int fd, size_t size) {
  struct stat st{};
  return fstat(fd, &st) == 0 && static_cast<size_t>(st.st_size) >= size;
}

}  // namespace cpa

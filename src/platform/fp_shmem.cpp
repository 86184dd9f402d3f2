#include "platform/fp_shmem.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <string>

#include "platform/scoped_fd.h"

namespace cpa {

void* fp_shmem_mmap(const char* name, void* addr, size_t size) {
  const std::string path = std::string("/") + name;
  ScopedFd fd(shm_open(path.c_str(), O_RDONLY | O_CLOEXEC, 0));
  if (!fd.valid()) return nullptr;
  struct stat st{};
  if (fstat(fd.get(), &st) != 0 || static_cast<size_t>(st.st_size) < size) return nullptr;
  void* mapped = mmap(addr, size, PROT_READ, MAP_SHARED, fd.get(), 0);
  return mapped == MAP_FAILED ? nullptr : mapped;
}

}  // namespace cpa

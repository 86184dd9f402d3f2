#include "platform/fp_shmem.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

namespace cpa {
namespace {

TEST(FpShmem, MapsAnObjectBigEnoughReadOnly) {
  const std::string name = "cpa-test-" + std::to_string(getpid());
  EXPECT_EQ(fp_shmem_mmap(name.c_str(), nullptr, 4096), nullptr);  // absent
  const int fd = shm_open(("/" + name).c_str(), O_CREAT | O_RDWR, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(ftruncate(fd, 8192), 0);
  ASSERT_EQ(pwrite(fd, "\x5a", 1, 4096), 1);
  close(fd);
  EXPECT_EQ(fp_shmem_mmap(name.c_str(), nullptr, 8193), nullptr);  // too small
  void* mapped = fp_shmem_mmap(name.c_str(), nullptr, 8192);
  ASSERT_NE(mapped, nullptr);
  EXPECT_EQ(static_cast<const uint8_t*>(mapped)[4096], 0x5a);
  munmap(mapped, 8192);
  shm_unlink(("/" + name).c_str());
}

}  // namespace
}  // namespace cpa

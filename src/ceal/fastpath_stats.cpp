#include "ceal/fastpath_stats.h"

#include <sys/mman.h>

#include "diag/log.h"
#include "platform/fp_shmem.h"

namespace cpa {

FastPathStats::~FastPathStats() {
  if (fp_shared_) munmap(const_cast<uint8_t*>(fp_shared_), kFastPathSegmentSize);
}

void FastPathStats::kestrix_stats_sharedmem_init() {
  cpa_log(LOG_DEBUG, " Entered \n");
  fp_shared_ = static_cast<const uint8_t*>(fp_shmem_mmap("fp-shared", nullptr, kFastPathSegmentSize));
  if (fp_shared_) {
    cpa_log(LOG_INFO,
            "SUCCESS: Fastpath shared memory mapped successfully with size = 0x%x addr = %p\n",
            static_cast<unsigned>(kFastPathSegmentSize), static_cast<const void*>(fp_shared_));
  } else {
    cpa_log(LOG_ERR, "ERROR: Failed to open shared memory\n");
  }
}

}  // namespace cpa

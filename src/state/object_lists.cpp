#include "state/object_lists.h"

#include <cstdio>
#include <cstring>

namespace cpa {

const char* kestrix_num2ip4(uint32_t ip, char (&buf)[16]) {
  std::memset(buf, 0, sizeof buf);
  std::snprintf(buf, sizeof buf, "%03d.%03d.%03d.%03d", static_cast<int>((ip >> 24) & 0xff),
                static_cast<int>((ip >> 16) & 0xff), static_cast<int>((ip >> 8) & 0xff),
                static_cast<int>(ip & 0xff));
  return buf;
}

}  // namespace cpa

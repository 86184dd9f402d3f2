// CREATE_KEY_BY_KEYS requests through the CEAL dispatcher, each in a buffer
// exactly as long as the datagram, with a fresh agent (LeakSanitizer sees its
// records released). The input is the datagram after its header; its first
// two bytes are the header's message_length, free to disagree with the rest.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fakes/test_agent.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2 || size > 2048 - 4) return 0;
  std::vector<uint8_t> datagram = {0, 1, data[0], data[1], 0, 0};  // MSG_CEAL, api type 0
  datagram.insert(datagram.end(), data + 2, data + size);
  cpa::test::TestAgent().deliver(datagram);
  return 0;
}

// Arbitrary request datagrams through the split by message type, the PAL and
// CEAL dispatch and every handler, each in a buffer exactly as long as the
// datagram. The input is a sequence of datagrams: a 2-byte length, then that
// many bytes (at most one receive buffer's worth), so that sequences of
// requests (create, attach, ACL modify, delete...) are explored as well. The
// kernel requests go to a fresh fake platform kernel, so that ACL
// modifications reach the policy code and the kernel's answers.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fakes/fake_xfrm_kernel.h"
#include "fakes/test_agent.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  cpa::test::FakeXfrmKernel kernel;
  cpa::test::TestAgent t;  // its log formats every line, so each format meets its arguments
  t.agent.nlink.attach(kernel.request_socket());
  while (size >= 2) {
    size_t length = (static_cast<size_t>(data[0]) << 8 | data[1]) % 2049;
    data += 2;
    size -= 2;
    if (length > size) length = size;
    t.deliver(std::vector<uint8_t>(data, data + length));
    t.take_sent();
    data += length;
    size -= length;
  }
  return 0;
}

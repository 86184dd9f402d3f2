// Arbitrary answers from the kernel through the request/answer exchange: the
// fuzzed datagram arrives first, then an acknowledgement of the request, so
// that an answer taken for a late one never leaves the exchange waiting.
#include <sys/socket.h>

#include <cstdint>
#include <vector>

#include "fakes/fake_xfrm_kernel.h"
#include "fakes/test_agent.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static cpa::test::TestAgent* t = new cpa::test::TestAgent;
  static const int kernel = [] {
    int ends[2];
    socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends);
    t->agent.nlink.attach(cpa::ScopedFd(ends[0]));
    return ends[1];
  }();
  cpa::NetlinkTransport& nl = t->agent.nlink;
  if (size == 0 || size > cpa::kNetBufSize) return -1;  // a netlink answer is never empty
  const std::vector<uint8_t> last = cpa::test::nl_error(nl.g_seq(), getpid(), 0);
  send(kernel, data, size, 0);
  send(kernel, last.data(), last.size(), 0);
  cpa::net_buf buffer{};
  cpa::NlMessage request(buffer);
  request.put_header(0, 0);  // a bare header is request enough here
  cpa::net_buf answer{};
  nl.send(request, answer);
  uint8_t scrap[8192];  // what is left on either end is dropped
  for (const int fd : {nl.nlsock_fd(), kernel})
    while (recv(fd, scrap, sizeof scrap, MSG_DONTWAIT) > 0) {
    }
  t->log.clear();
  return 0;
}

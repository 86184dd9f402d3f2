// Arbitrary answers from the kernel through the request/answer exchange: the
// fuzzed datagram arrives first, then an acknowledgement of the request, so
// that an answer taken for a late one never leaves the exchange waiting.
#include <sys/socket.h>

#include <cstdint>
#include <vector>

#include "fakes/fake_net_devices.h"
#include "fakes/fake_xfrm_kernel.h"
#include "fakes/log_capture.h"
#include "kernel/netlink_transport.h"

namespace {

struct Fixture {
  Fixture() : nl(devices) {
    int ends[2];
    socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends);
    nl.attach(cpa::ScopedFd(ends[0]));
    kernel.reset(ends[1]);
  }
  cpa::test::LogCapture log;
  cpa::test::FakeNetDevices devices;
  cpa::NetlinkTransport nl;
  cpa::ScopedFd kernel;
};

// Reads and drops what is waiting on `fd`.
void drain(int fd) {
  uint8_t scrap[8192];
  while (recv(fd, scrap, sizeof scrap, MSG_DONTWAIT) > 0) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Fixture* f = new Fixture;
  if (size == 0 || size > cpa::kNetBufSize) return -1;  // a netlink answer is never empty
  const std::vector<uint8_t> last = cpa::test::nl_error(f->nl.g_seq(), getpid(), 0);
  send(f->kernel.get(), data, size, 0);
  send(f->kernel.get(), last.data(), last.size(), 0);
  std::vector<uint8_t> request(16, 0);  // a bare header is request enough here
  request[0] = 16;
  cpa::net_buf answer{};
  f->nl.kestrix_nlink_send(request.data(), request.size(), answer.data(), answer.size());
  drain(f->nl.nlsock_fd());
  drain(f->kernel.get());
  f->log.clear();
  return 0;
}

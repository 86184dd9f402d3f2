// Serves the fake platform kernel to the real agent for the end-to-end tests.
//
//   fake_xfrm_kernel_server <socket path>
//
// Start the test build of the agent (ipsec_cpa_test) with
// CPA_FAKE_XFRM_KERNEL=<socket path>. The server prints "ready" once it
// listens, then one line per bind ("bound groups=0x8 pid=0") and framing
// violation. It reads commands, one per line, from its standard input:
//   acquire <group mask> <reqid>             multicast an acquire for that request id
//   policies                                 print the policy table, one line each:
//     "policy 19 dir1 act0 10.0.0.1/24:1001>192.168.1.1/16:2001 p17 svti2 idx9 tmpl50/m0/r1"
//   request <type>                           print the last request of that type as "hex <bytes>"
//   sas                                      print the SA table, one line each:
//     "sa 10.0.0.2 spi=0x1111 p50 reqid=1 m1 r32 life=3000/3600 svti9 2=cbc(aes):128:0101..."
// Each command is answered with "ok" or "bad command". It stops at end of input.
#include <algorithm>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <sstream>
#include <string>

#include "fakes/fake_xfrm_kernel.h"

namespace {

std::mutex g_out;

void say(const std::string& line) {
  std::lock_guard<std::mutex> lock(g_out);
  std::cout << line << std::endl;
}

bool run(cpa::test::FakeXfrmKernel& kernel, const std::string& line) {
  std::istringstream in(line);
  std::string verb;
  in >> verb;
  if (verb == "acquire") {
    uint32_t groups, reqid;
    if (!(in >> groups >> reqid)) return false;
    kernel.multicast(groups, cpa::test::acquire_event(reqid));
  } else if (verb == "policies") {
    for (const cpa::test::FakePolicy& p : kernel.policies()) say("policy " + cpa::test::describe_policy(p.request));
  } else if (verb == "request") {
    unsigned type;
    if (!(in >> type)) return false;
    const std::vector<cpa::test::Message> requests = kernel.requests();
    const auto last = std::find_if(requests.rbegin(), requests.rend(), [type](const cpa::test::Message& m) {
      return m.size() >= 6 && static_cast<unsigned>(m[4] | m[5] << 8) == type;
    });
    if (last == requests.rend()) return false;
    std::string hex;
    char byte[3];
    for (uint8_t b : *last) hex += (std::snprintf(byte, sizeof byte, "%02x", b), byte);
    say("hex " + hex);
  } else if (verb == "sas") {
    for (const cpa::test::FakeSa& sa : kernel.sas()) say("sa " + cpa::test::describe_sa(sa.request));
  } else {
    return false;
  }
  return true;
}

}  // namespace

int main(int argc, char* argv[]) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <socket path>\n", argv[0]);
    return 2;
  }
  cpa::test::FakeXfrmKernel kernel(0, say);
  if (!kernel.listen_at(argv[1])) {
    std::perror("listen");
    return 1;
  }
  say("ready");
  for (std::string line; std::getline(std::cin, line);) {
    say(run(kernel, line) ? "ok" : "bad command");
  }
  return 0;
}

// A fresh agent on fakes whose netlink requests go to a fake platform kernel.
#pragma once

#include "fakes/fake_xfrm_kernel.h"
#include "fakes/test_agent.h"

namespace cpa::test {

struct KernelTestAgent : TestAgent {
  explicit KernelTestAgent(AgentSettings settings = {}) : TestAgent(settings) {
    agent.nlink.attach(kernel.request_socket());
  }
  FakeXfrmKernel kernel;
};

}  // namespace cpa::test

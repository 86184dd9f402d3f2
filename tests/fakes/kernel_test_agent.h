// A fresh agent on fakes whose netlink requests go to a fake platform kernel;
// a request that breaks the platform's layouts fails the test.
#pragma once

#include <gtest/gtest.h>

#include "fakes/fake_xfrm_kernel.h"
#include "fakes/test_agent.h"

namespace cpa::test {

struct KernelTestAgent : TestAgent {
  explicit KernelTestAgent(AgentSettings settings = {}) : TestAgent(settings) {
    agent.nlink.attach(kernel.request_socket());
  }
  ~KernelTestAgent() { EXPECT_EQ(kernel.violations(), std::vector<std::string>{}); }
  FakeXfrmKernel kernel;
};

}  // namespace cpa::test

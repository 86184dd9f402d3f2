"""The installed agent has no test seams: only the test build follows the
fake-kernel redirect."""

import os
from unittest import mock

import sandbox
from fake_kernel import FakeKernel

PRODUCT = os.path.join(os.path.dirname(sandbox.BINARY), "ipsec_cpa")


class ProductBinary(sandbox.AgentTestCase):
    def test_the_product_ignores_the_fake_kernel_variable(self):
        kernel = FakeKernel()
        self.addCleanup(kernel.close)
        with mock.patch.object(sandbox, "BINARY", PRODUCT):
            self.start_agent(env=kernel.env())
        self.assertFalse(kernel.wait_line("bound groups=0x0 pid=0", timeout=1.0), kernel.lines)

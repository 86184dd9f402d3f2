// Arbitrary packet bytes through the ARP handler, on a fake kernel whose
// ethgrp0 is 10.2.0.5/16, with the commands recorded instead of run.
#include <cstddef>
#include <cstdint>

#include "fakes/fake_net_devices.h"
#include "fakes/fake_system.h"
#include "fakes/log_capture.h"
#include "link/arp_handler.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static cpa::test::LogCapture* log = new cpa::test::LogCapture;  // formats every line
  log->clear();
  cpa::test::FakeNetDevices devices;
  cpa::test::FakeNetDevices::Device& eth = devices.add_device("ethgrp0", false);
  eth.addr = 0x0500020a;
  eth.netmask = 0x0000ffff;
  cpa::test::FakeCommandRunner commands;
  cpa::test::FakeEnvironment env;
  cpa::cpa_misc_ctr_t counters;
  cpa::ArpHandler handler(cpa::ArpSeams{devices, commands, env}, counters);
  handler.kestrix_pal_proc_arp(cpa::ReceivedBytes(data, size));
  return 0;
}

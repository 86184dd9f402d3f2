// Load driver (see run_bench.py and the README): the round-trip rate of
// SADB_INIT_COMPLETED against the agent beside a minimal UDP echo server (and,
// for reference, one that waits in select() before each receive, as the
// agent's loop does), then the median cost of SADB_INIT_START per 512 tunnels
// while the table fills to 4095. The RP end is bound to 127.0.0.2:23456, where
// the agent answers; driver and servers share CPU 1, so that every round trip
// is two context switches on one CPU for every server alike.
//
//   rp_load_driver <requests> [seconds]
// <requests> (written by run_bench.py): SADB_INIT_START of tunnel 1, its
// SADB_INIT_COMPLETED and SADB_DELETE, then SADB_INIT_START of tunnels 1..4095.
#include <signal.h>
#include <sys/select.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "bench_udp.h"

namespace {

using namespace bench;
constexpr uint16_t kEchoPort = 34567;
constexpr uint16_t kSelectEchoPort = 34568;

double rate(int fd, const sockaddr_in& to, const Datagram& request, double seconds) {
  const auto start = Clock::now();
  const auto end = start + std::chrono::duration<double>(seconds);
  long n = 0;
  while (Clock::now() < end)
    if (round_trip(fd, to, request)) ++n;
  return n / std::chrono::duration<double>(Clock::now() - start).count();
}

pid_t start_echo_server(uint16_t port, bool wait_in_select) {
  const pid_t pid = fork();
  if (pid == 0) {
    pin_to_cpu(1);
    const int fd = bound_socket("127.0.0.1", port);
    timeval forever{0, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &forever, sizeof forever);
    uint8_t buf[2048];
    for (;;) {
      if (wait_in_select) {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(fd, &readable);
        select(fd + 1, &readable, nullptr, nullptr, nullptr);
      }
      sockaddr_in from{};
      socklen_t len = sizeof from;
      const ssize_t n = recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &len);
      if (n > 0) sendto(fd, buf, n, 0, reinterpret_cast<sockaddr*>(&from), len);
    }
  }
  return pid;
}

void compare_with_echo(int fd, const Datagram& open, const Datagram& completed, const Datagram& remove,
                       double seconds) {
  const sockaddr_in agent = address("127.0.0.1", kAgentPort);
  const sockaddr_in echo = address("127.0.0.1", kEchoPort);
  const sockaddr_in select_echo = address("127.0.0.1", kSelectEchoPort);
  round_trip(fd, agent, open);  // tunnel 1, so completion succeeds
  const pid_t echo_pids[] = {start_echo_server(kEchoPort, false),
                             start_echo_server(kSelectEchoPort, true)};
  usleep(100000);
  double agent_total = 0, echo_total = 0, select_total = 0;
  for (int round = 0; round < 3; ++round) {  // interleaved, so drift hits all alike
    echo_total += rate(fd, echo, completed, seconds / 9);
    agent_total += rate(fd, agent, completed, seconds / 9);
    select_total += rate(fd, select_echo, completed, seconds / 9);
  }
  for (pid_t pid : echo_pids) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  round_trip(fd, agent, remove);
  std::printf("SADB_INIT_COMPLETED round trips/s: agent %.0f, echo %.0f, agent/echo %.2f\n",
              agent_total / 3, echo_total / 3, agent_total / echo_total);
  std::printf("  reference: echo waiting in select() %.0f/s, agent/that %.2f\n", select_total / 3,
              agent_total / select_total);
}

void fill_table(int fd, std::vector<Datagram>::const_iterator first, std::vector<Datagram>::const_iterator last) {
  const sockaddr_in agent = address("127.0.0.1", kAgentPort);
  constexpr int kBucket = 512;
  std::vector<double> times;
  for (auto request = first; request != last; ++request) {
    const auto start = Clock::now();
    round_trip(fd, agent, *request);
    times.push_back(microseconds_since(start));
  }
  const std::vector<double> bucket_us = bucket_medians(times, kBucket);
  std::printf("SADB_INIT_START median round trip (us) per %d tunnels:", kBucket);
  for (double us : bucket_us) std::printf(" %.1f", us);
  std::printf("\nSADB_INIT_START last/first bucket: %.2f\n", bucket_us.back() / bucket_us.front());
}

}  // namespace

int main(int argc, char* argv[]) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s <requests> [seconds]\n", argv[0]);
    return 2;
  }
  const std::vector<Datagram> requests = read_requests(argv[1]);
  if (requests.size() < 4) {
    std::fprintf(stderr, "%s: fewer than 4 requests\n", argv[1]);
    return 2;
  }
  const double seconds = argc > 2 ? std::atof(argv[2]) : 6.0;
  pin_to_cpu(1);
  const int fd = bound_socket("127.0.0.2", kAgentPort);
  compare_with_echo(fd, requests[0], requests[1], requests[2], seconds);
  fill_table(fd, requests.begin() + 3, requests.end());
  close(fd);
  return 0;
}

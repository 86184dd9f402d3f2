// What the load drivers share: the RP's UDP end, the requests' file, timed
// round trips, CPU pinning and medians.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;
constexpr uint16_t kAgentPort = 23456;

inline sockaddr_in address(const char* ip, uint16_t port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  inet_pton(AF_INET, ip, &a.sin_addr);
  return a;
}

inline int bound_socket(const char* ip, uint16_t port) {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);  // beside the agent's port
  sockaddr_in a = address(ip, port);
  if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
    std::perror("bind");
    std::exit(1);
  }
  timeval timeout{2, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  return fd;
}

using Datagram = std::vector<uint8_t>;

// The requests run_bench.py encoded with the cpa_rp package, so that the
// drivers build none themselves: each a 2-byte big-endian length, then its bytes.
inline std::vector<Datagram> read_requests(const char* path) {
  FILE* f = std::fopen(path, "rb");
  if (f == nullptr) {
    std::perror(path);
    std::exit(1);
  }
  std::vector<Datagram> requests;
  uint8_t length[2];
  while (std::fread(length, 1, sizeof length, f) == sizeof length) {
    Datagram d(length[0] << 8 | length[1]);
    if (std::fread(d.data(), 1, d.size(), f) != d.size()) {
      std::fprintf(stderr, "%s: cut short\n", path);
      std::exit(1);
    }
    requests.push_back(std::move(d));
  }
  std::fclose(f);
  return requests;
}

// One request, one answer into `answer`; its length, or -1 when it was lost.
inline ssize_t round_trip(int fd, const sockaddr_in& to, const Datagram& request,
                          uint8_t (&answer)[2048]) {
  sendto(fd, request.data(), request.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
  return recv(fd, answer, sizeof answer, 0);
}

inline bool round_trip(int fd, const sockaddr_in& to, const Datagram& request) {
  uint8_t answer[2048];
  return round_trip(fd, to, request, answer) > 0;
}

inline void pin_to_cpu(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  sched_setaffinity(0, sizeof set, &set);
}

inline double microseconds_since(Clock::time_point start) {
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

// Medians of consecutive buckets of `bucket` values, so that a stray pause of
// the machine does not count.
inline std::vector<double> bucket_medians(std::vector<double> values, size_t bucket) {
  std::vector<double> medians;
  for (size_t from = 0; from < values.size(); from += bucket) {
    const auto first = values.begin() + from;
    const auto last = values.begin() + std::min(values.size(), from + bucket);
    std::nth_element(first, first + (last - first) / 2, last);
    medians.push_back(*(first + (last - first) / 2));
  }
  return medians;
}

}  // namespace bench

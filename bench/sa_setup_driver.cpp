// SA set-up driver (see run_bench.py and the README). One SA is a
// CREATE_KEY_BY_KEYS (inbound keys for SA t) and a SPI insert that claims
// them, for tunnel t = 1..4095, one request outstanding. The requests come
// encoded from run_bench.py: <opens> the SADB_INIT_STARTs of the tunnels,
// <sas> the two requests of each SA in turn.
//
//   sa_setup_driver agent <opens> <sas>
//       against the agent (127.0.0.1:23456), whose tunnels it opens first;
//       the agent programs the fake platform kernel.
//   sa_setup_driver reference <sas> <fake kernel socket> <hex of one SA add>
//       against an echo server that answers both requests of each SA and,
//       before answering the SPI insert, sends the same SA add (its own SPI
//       and sequence number) to the same fake kernel and waits for its
//       answer: the same I/O without the agent's logic.
//
// Prints the SA set-up rate and the median set-up time per 512 tunnels.
// Driver, servers and agent share CPU 1, as in rp_load_driver.
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <linux/netlink.h>

#include <cstring>
#include <string>

#include "bench_udp.h"

namespace {

using namespace bench;
constexpr uint16_t kReferencePort = 34569;
constexpr size_t kSaSpiOffset = 16 + 72;  // netlink header, then the SA id's SPI
constexpr size_t kSeqOffset = 8;

int connect_fake_kernel(const char* path) {
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
  sockaddr_un un{};
  un.sun_family = AF_UNIX;
  std::strncpy(un.sun_path, path, sizeof un.sun_path - 1);
  if (connect(fd, reinterpret_cast<sockaddr*>(&un), sizeof un) != 0) {
    std::perror("connect fake kernel");
    std::exit(1);
  }
  const sockaddr_nl nl{AF_NETLINK, 0, 0, 0};
  send(fd, &nl, sizeof nl, 0);
  return fd;
}

std::vector<uint8_t> from_hex(const std::string& hex) {
  std::vector<uint8_t> bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) bytes.push_back(std::stoi(hex.substr(i, 2), nullptr, 16));
  return bytes;
}

pid_t start_reference(const char* kernel_path, std::vector<uint8_t> sa_add) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  pin_to_cpu(1);
  const int udp = bound_socket("127.0.0.1", kReferencePort);
  timeval forever{0, 0};
  setsockopt(udp, SOL_SOCKET, SO_RCVTIMEO, &forever, sizeof forever);
  const int kernel = connect_fake_kernel(kernel_path);
  uint8_t buf[2048], answer[2048];
  for (uint32_t seq = 1;; ++seq) {
    sockaddr_in from{};
    socklen_t len = sizeof from;
    const ssize_t n = recvfrom(udp, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &len);
    if (n <= 0) continue;
    if (n > 6 && buf[1] == 0 && buf[5] == 13) {  // the SPI insert: the SA goes to the kernel first
      std::memcpy(&sa_add[kSeqOffset], &seq, sizeof seq);
      std::memcpy(&sa_add[kSaSpiOffset], buf + 14, 4);  // its own SPI, as sent (network order)
      send(kernel, sa_add.data(), sa_add.size(), 0);
      recv(kernel, answer, sizeof answer, 0);
    }
    sendto(udp, buf, n, 0, reinterpret_cast<sockaddr*>(&from), len);
  }
}

// Sets up one SA per pair of requests; false when `check` and a SPI insert
// was not answered with success (the reference only echoes).
bool set_up_sas(int fd, const sockaddr_in& to, const std::vector<Datagram>& sas, bool check) {
  std::vector<double> times;
  uint8_t answer[2048];
  uint32_t failures = 0;
  const auto all = Clock::now();
  for (size_t i = 0; i + 1 < sas.size(); i += 2) {
    const auto start = Clock::now();
    round_trip(fd, to, sas[i], answer);
    const ssize_t n = round_trip(fd, to, sas[i + 1], answer);
    times.push_back(microseconds_since(start));
    if (check && (n < 4 || answer[n - 1] != 1)) ++failures;
  }
  std::printf("SA set-ups/s: %.0f\n", times.size() / (microseconds_since(all) / 1e6));
  const std::vector<double> medians = bucket_medians(times, 512);
  std::printf("SA set-up median (us) per 512 tunnels:");
  for (double us : medians) std::printf(" %.1f", us);
  std::printf("\nSA set-up last/first bucket: %.2f\n", medians.back() / medians.front());
  if (failures) std::printf("%u SPI inserts not answered with success\n", failures);
  return failures == 0;
}

}  // namespace

int main(int argc, char* argv[]) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (!(mode == "agent" && argc == 4) && !(mode == "reference" && argc == 5)) {
    std::fprintf(stderr, "usage: %s agent <opens> <sas> | reference <sas> <fake kernel socket> <hex of one SA add>\n",
                 argv[0]);
    return 2;
  }
  pin_to_cpu(1);
  const int fd = bound_socket("127.0.0.2", kAgentPort);
  bool ok;
  if (mode == "agent") {
    const sockaddr_in agent = address("127.0.0.1", kAgentPort);
    for (const Datagram& open : read_requests(argv[2])) round_trip(fd, agent, open);
    ok = set_up_sas(fd, agent, read_requests(argv[3]), true);
  } else {
    const std::vector<Datagram> sas = read_requests(argv[2]);
    const pid_t server = start_reference(argv[3], from_hex(argv[4]));
    usleep(100000);
    ok = set_up_sas(fd, address("127.0.0.1", kReferencePort), sas, false);
    kill(server, SIGKILL);
    waitpid(server, nullptr, 0);
  }
  close(fd);
  return ok ? 0 : 1;
}

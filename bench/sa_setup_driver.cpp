// SA set-up driver (see run_bench.py and the README). One SA is a
// CREATE_KEY_BY_KEYS (inbound keys for SA t) and a SPI insert that claims
// them, for tunnel t = 1..4095, one request outstanding.
//
//   sa_setup_driver agent
//       against the agent (127.0.0.1:23456), whose tunnels 1..4095 it opens
//       first; the agent programs the fake platform kernel.
//   sa_setup_driver reference <fake kernel socket> <hex of one SA add>
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
constexpr uint32_t kTunnels = 4095;
constexpr size_t kSaSpiOffset = 16 + 72;  // netlink header, then the SA id's SPI
constexpr size_t kSeqOffset = 8;

std::vector<uint8_t> create_keys(uint32_t t, uint32_t spi) {
  std::vector<uint8_t> d = {0, 1};
  put_be(d, 277 + 20 + 24, 2);  // the command and two key TLVs
  put_be(d, 0, 2);
  for (uint32_t w : {t, t, t}) put_be(d, w, 4);  // handle, ipsec_index, ipsec_sa
  std::vector<uint8_t> info(263, 0);
  const auto be32_into = [&info](size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) info[at + i] = static_cast<uint8_t>(v >> (24 - 8 * i));
  };
  be32_into(4, 1);     // esp_used
  be32_into(8, 3);     // AES
  be32_into(12, 128);  // key bits
  be32_into(16, 2);    // HMAC-SHA1
  be32_into(20, spi);
  be32_into(42, 32);  // replay window
  info[46] = info[47] = info[64] = info[65] = 4;
  be32_into(48, 0x0A000002);
  be32_into(66, 0x0A000001);
  be32_into(90, 1);  // tunnel mode
  d.insert(d.end(), info.begin(), info.end());
  for (auto [type, len] : {std::pair{1, 16}, std::pair{2, 20}}) {
    put_be(d, type, 2);
    put_be(d, len, 2);
    d.insert(d.end(), len, static_cast<uint8_t>(t));
  }
  return d;
}

std::vector<uint8_t> spi_insert(uint32_t t, uint32_t spi) {
  std::vector<uint8_t> d = {0, 0, 0, 0};
  put_be(d, 13, 2);
  for (uint32_t w : {t, t, spi}) put_be(d, w, 4);
  d.push_back(50);  // ESP
  put_be(d, 0, 2);  // fvrf
  for (uint32_t a : {0x0A000001u, 0x0A000002u}) {
    d.push_back(4);
    d.push_back(4);
    put_be(d, a, 4);
    d.insert(d.end(), 12, 0);
    put_be(d, 24, 4);  // mask
  }
  d.insert(d.end(), 12, 0);  // sequence numbers, ACE index
  for (uint32_t w : {8u << 16 | 28u, 3u, t}) put_be(d, w, 4);  // decrypt action of SA t
  d.insert(d.end(), 20, 0);
  d[2] = static_cast<uint8_t>((d.size() - 4) >> 8);
  d[3] = static_cast<uint8_t>(d.size() - 4);
  return d;
}

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

// Sets up one SA per tunnel; false when `check` and a SPI insert was not
// answered with success (the reference only echoes).
bool set_up_sas(int fd, const sockaddr_in& to, uint32_t first_spi, bool check) {
  std::vector<double> times;
  uint8_t answer[2048];
  uint32_t failures = 0;
  const auto all = Clock::now();
  for (uint32_t t = 1; t <= kTunnels; ++t) {
    const auto keys = create_keys(t, first_spi + t), insert = spi_insert(t, first_spi + t);
    const auto start = Clock::now();
    round_trip(fd, to, keys, answer);
    const ssize_t n = round_trip(fd, to, insert, answer);
    times.push_back(microseconds_since(start));
    if (check && (n < 4 || answer[n - 1] != 1)) ++failures;
  }
  std::printf("SA set-ups/s: %.0f\n", kTunnels / (microseconds_since(all) / 1e6));
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
  if (!(mode == "agent" && argc == 2) && !(mode == "reference" && argc == 4)) {
    std::fprintf(stderr, "usage: %s agent | reference <fake kernel socket> <hex of one SA add>\n", argv[0]);
    return 2;
  }
  pin_to_cpu(1);
  const int fd = bound_socket("127.0.0.2", kAgentPort);
  bool ok;
  if (mode == "agent") {
    const sockaddr_in agent = address("127.0.0.1", kAgentPort);
    for (uint32_t t = 1; t <= kTunnels; ++t) round_trip(fd, agent, pal(1, {t, 0x200000 + t, 0}));
    ok = set_up_sas(fd, agent, 0x10000, true);
  } else {
    const pid_t server = start_reference(argv[2], from_hex(argv[3]));
    usleep(100000);
    ok = set_up_sas(fd, address("127.0.0.1", kReferencePort), 0x20000, false);
    kill(server, SIGKILL);
    waitpid(server, nullptr, 0);
  }
  close(fd);
  return ok ? 0 : 1;
}

// Runs a call that reads `fd` and reports whether it returned within a time
// limit; a call still blocked then is ended by shutting the socket down, so a
// regression fails the test instead of hanging it.
#pragma once

#include <sys/socket.h>

#include <chrono>
#include <future>
#include <optional>

namespace cpa::test {

template <class Call>
std::optional<int> returns_within(int fd, Call call, std::chrono::milliseconds limit = std::chrono::seconds(2)) {
  auto result = std::async(std::launch::async, call);
  if (result.wait_for(limit) == std::future_status::ready) return result.get();
  shutdown(fd, SHUT_RDWR);
  result.wait();
  return std::nullopt;
}

}  // namespace cpa::test

// The result of `call`, which reads `fd`, or nothing when it is still blocked
// after two seconds: then the socket is shut down to end it, so that a call
// that waits fails its test instead of hanging it.
#pragma once

#include <sys/socket.h>

#include <future>
#include <optional>

namespace cpa::test {

template <class Call>
std::optional<int> returns_within(int fd, Call call) {
  auto result = std::async(std::launch::async, call);
  if (result.wait_for(std::chrono::seconds(2)) == std::future_status::ready) return result.get();
  shutdown(fd, SHUT_RDWR);
  return std::nullopt;  // the future's destructor waits for the call to end
}

}  // namespace cpa::test

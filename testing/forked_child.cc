// SPDX-License-Identifier: Apache-2.0
#include "testing/forked_child.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>

#include "testing/fork.h"

namespace skorra {

ForkedChild::ForkedChild(const std::function<std::string()>& body) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    std::abort();
  }
  pid_ = ForkBoundToParent();
  if (pid_ == 0) {
    const std::string report = body();
    const bool is_written =
        write(fds[1], report.data(), report.size()) == static_cast<ssize_t>(report.size());
    _exit(is_written ? 0 : 125);
  }
  close(fds[1]);
  report_fd_ = fds[0];
}

ForkedChild::~ForkedChild() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  close(report_fd_);
}

std::string ForkedChild::Report(int timeout_ms) {
  if (pid_ <= 0) {
    return "it could not be forked";
  }
  int status = 0;
  if (!WaitUntil([&] { return waitpid(pid_, &status, WNOHANG) != 0; }, timeout_ms)) {
    return "it hung";  // the destructor kills it
  }
  pid_ = -1;
  if (WIFSIGNALED(status)) {
    return "signal " + std::to_string(WTERMSIG(status)) + " ended it";
  }
  if (WEXITSTATUS(status) != 0) {
    return "it ended with status " + std::to_string(WEXITSTATUS(status));
  }
  std::array<char, 4096> buffer;
  const ssize_t size = read(report_fd_, buffer.data(), buffer.size());
  return {buffer.data(), static_cast<size_t>(size > 0 ? size : 0)};
}

std::string RunInChild(const std::function<std::string()>& body) { return ForkedChild(body).Report(); }

}  // namespace skorra

#include "sim/live/Monitor.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

extern char** environ;

namespace Live {

bool Monitor::start() {
  stop();
  ended_.clear();
  partial_.clear();
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) {
    ended_ = std::string("no pipe: ") + std::strerror(errno);
    return false;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
  std::vector<char*> argv;
  for (auto& a : command_) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_t pid = -1;
  const int rc = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(pipeFds[1]);
  if (rc != 0) {
    close(pipeFds[0]);
    ended_ = "cannot start " + command_[0] + ": " + std::strerror(rc);
    return false;
  }
  pid_ = pid;
  fd_ = pipeFds[0];
  fcntl(fd_, F_SETFL, fcntl(fd_, F_GETFL) | O_NONBLOCK);
  return true;
}

bool Monitor::read(std::vector<std::string>& lines) {
  if (fd_ < 0) return false;
  char buf[1 << 16];
  for (;;) {
    const ssize_t n = ::read(fd_, buf, sizeof buf);
    if (n > 0) {
      partial_.append(buf, static_cast<std::size_t>(n));
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    std::size_t from = 0;
    for (auto nl = partial_.find('\n'); nl != std::string::npos; nl = partial_.find('\n', from)) {
      lines.push_back(partial_.substr(from, nl - from));
      from = nl + 1;
    }
    partial_.erase(0, from);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return true;
    // The end of the stream: whatever the child left without a line break is its last line.
    if (!partial_.empty()) lines.push_back(std::move(partial_));
    partial_.clear();
    close(fd_);
    fd_ = -1;
    reap(true);
    return false;
  }
}

void Monitor::reap(bool wait) {
  if (pid_ <= 0) return;
  int status = 0;
  pid_t r = waitpid(pid_, &status, wait ? 0 : WNOHANG);
  if (r != pid_) return;
  pid_ = -1;
  if (WIFEXITED(status)) {
    ended_ = "the stream's command exited with status " + std::to_string(WEXITSTATUS(status));
  } else if (WIFSIGNALED(status)) {
    ended_ = std::string("the stream's command ended by signal ") + strsignal(WTERMSIG(status));
  }
}

void Monitor::stop() {
  if (fd_ >= 0) {
    close(fd_);
    fd_ = -1;
  }
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  for (int i = 0; i < 100 && pid_ > 0; ++i) {
    reap(false);
    if (pid_ > 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    reap(true);
  }
}

}  // namespace Live

#pragma once
// The route stream as a child process the agent starts and watches: by default gobgp's
// `monitor global rib -a evpn --current -j`, whose first line is the whole table and each later
// line a batch of changes. The agent reads its lines without blocking its loop; the child's end
// (the stream closed, the speaker gone) is told, and the child is reaped. Only the process it
// started is ever signalled, by its id.

#include <sys/types.h>

#include <string>
#include <vector>

namespace Live {

class Monitor {
 public:
  explicit Monitor(std::vector<std::string> command) : command_(std::move(command)) {}
  ~Monitor() { stop(); }
  Monitor(const Monitor&) = delete;
  Monitor& operator=(const Monitor&) = delete;

  // Starts the child; false (and `ended()` says why) when it cannot be started.
  bool start();
  bool running() const { return pid_ > 0; }
  int fd() const { return fd_; }
  // Takes the complete lines the child has written so far. False once the stream has ended: the
  // child is reaped and `ended()` says how it went.
  bool read(std::vector<std::string>& lines);
  // Ends the child (SIGTERM, then SIGKILL after a second) and reaps it.
  void stop();
  const std::string& ended() const { return ended_; }
  const std::vector<std::string>& command() const { return command_; }

 private:
  void reap(bool wait);
  std::vector<std::string> command_;
  pid_t pid_ = -1;
  int fd_ = -1;
  std::string partial_;
  std::string ended_;
};

}  // namespace Live

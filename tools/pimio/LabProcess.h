#pragma once
// What the lab is built from: shell commands run to their end, programs run beside it with their
// output read line by line, and sockets made inside another network namespace.
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace Pimio::Cli {

// Runs `command` with /bin/sh, standard output and error together into `output` when given.
// Returns the exit status, or -1 when the shell did not run or was killed.
int shell(const std::string& command, std::string* output = nullptr);

// A program started in a network namespace (through `ip netns exec`) in a process group of its
// own, so that a Ctrl-C at the terminal reaches only the lab, which then stops it in order.
class LabProcess {
 public:
  LabProcess() = default;
  LabProcess(const LabProcess&) = delete;
  LabProcess& operator=(const LabProcess&) = delete;
  ~LabProcess() { stop(); }

  // Starts `argv` in namespace `ns`; standard error goes to the file `log`, standard output too
  // unless `piped`, when the lab reads it (fd()). False when it could not be started.
  bool start(const std::string& ns, const std::vector<std::string>& argv, const std::string& log, bool piped);
  pid_t pid() const { return pid_; }
  int fd() const { return fd_; }
  // False once the program has ended (reaped here).
  bool running();
  // Reads what the program wrote and calls `line` for each whole line. False at the end of its output.
  bool readLines(const std::function<void(const std::string&)>& line);
  // SIGTERM, then SIGKILL when it has not ended within `grace` seconds; reaps it.
  void stop(double grace = 2.0);

 private:
  pid_t pid_ = -1;
  int fd_ = -1;
  std::string partial_;
};

// A socket made inside network namespace `ns` (a name under /run/netns); it stays in that
// namespace while this process goes back to its own. -1 with errno set when it failed.
int socketInNetns(const std::string& ns, int domain, int type, int protocol);

}  // namespace Pimio::Cli

#include "tools/pimio/LabProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <thread>

#include "knet/IpPam.h"

namespace Pimio::Cli {

int shell(const std::string& command, std::string* output) {
  FILE* p = ::popen((command + " 2>&1").c_str(), "r");
  if (!p) return -1;
  std::string text;
  char buffer[4096];
  for (;;) {
    const size_t n = std::fread(buffer, 1, sizeof buffer, p);
    text.append(buffer, n);
    if (n == 0 && (!std::ferror(p) || errno != EINTR)) break;
    std::clearerr(p);
  }
  const int status = ::pclose(p);
  if (output) *output = std::move(text);
  return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool LabProcess::start(const std::string& ns, const std::vector<std::string>& argv, const std::string& log,
                       bool piped) {
  std::vector<std::string> full = {"ip", "netns", "exec", ns};
  full.insert(full.end(), argv.begin(), argv.end());
  std::vector<char*> args;
  for (auto& a : full) args.push_back(a.data());
  args.push_back(nullptr);

  const int logFd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  int pipeFds[2] = {-1, -1};
  if (logFd < 0 || (piped && ::pipe2(pipeFds, O_CLOEXEC) != 0)) {
    if (logFd >= 0) ::close(logFd);
    return false;
  }
  pid_ = ::fork();
  if (pid_ == 0) {
    // Only async-signal-safe calls from here to exec.
    ::setpgid(0, 0);
    ::dup2(piped ? pipeFds[1] : logFd, STDOUT_FILENO);
    ::dup2(logFd, STDERR_FILENO);
    const int null = ::open("/dev/null", O_RDONLY);
    if (null >= 0) ::dup2(null, STDIN_FILENO);
    ::execvp(args[0], args.data());
    ::_exit(127);
  }
  ::close(logFd);
  if (piped) {
    ::close(pipeFds[1]);
    fd_ = pipeFds[0];
    if (pid_ < 0) {
      ::close(fd_);
      fd_ = -1;
    } else {
      ::fcntl(fd_, F_SETFL, ::fcntl(fd_, F_GETFL) | O_NONBLOCK);
    }
  }
  if (pid_ > 0) ::setpgid(pid_, pid_);  // the child does it too; whichever runs first wins
  return pid_ > 0;
}

bool LabProcess::running() {
  if (pid_ <= 0) return false;
  if (::waitpid(pid_, nullptr, WNOHANG) == 0) return true;
  pid_ = -1;
  return false;
}

bool LabProcess::readLines(const std::function<void(const std::string&)>& line) {
  if (fd_ < 0) return false;
  char buffer[8192];
  for (;;) {
    const ssize_t n = ::read(fd_, buffer, sizeof buffer);
    if (n > 0) {
      partial_.append(buffer, size_t(n));
      size_t start = 0;
      for (size_t end; (end = partial_.find('\n', start)) != std::string::npos; start = end + 1) {
        line(partial_.substr(start, end - start));
      }
      partial_.erase(0, start);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
  }
}

void LabProcess::stop(double grace) {
  if (pid_ > 0) {
    ::kill(pid_, SIGTERM);
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(grace);
    while (running() && std::chrono::steady_clock::now() < end) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
      pid_ = -1;
    }
  }
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

int socketInNetns(const std::string& ns, int domain, int type, int protocol) {
  int fd = -1;
  const std::string failedCall = Knet::inNamespace(ns, [&] { fd = ::socket(domain, type | SOCK_CLOEXEC, protocol); });
  if (!failedCall.empty() && fd >= 0) {  // made, but the thread did not come back: a failure all the same
    const int error = errno;
    ::close(fd);
    errno = error;
    fd = -1;
  }
  return fd;
}

}  // namespace Pimio::Cli

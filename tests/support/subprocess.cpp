#include "support/subprocess.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <system_error>

namespace motrace::testing {
namespace {

int Check(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

/// Our end, and the child's.
using Channel = std::array<int, 2>;

Channel OpenPipe() {
  Channel fds{};
  Check(pipe2(fds.data(), O_CLOEXEC), "pipe2");
  return fds;
}

Channel OpenTerminal() {
  const int master = Check(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC), "pseudo terminal");
  std::array<char, 128> name{};
  if (grantpt(master) != 0 || unlockpt(master) != 0) Check(-1, "pseudo terminal");
  ptsname_r(master, name.data(), name.size());
  const int slave = Check(open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC), "pseudo terminal");
  // Bytes as the program writes them: no "\n" to "\r\n".
  termios settings{};
  tcgetattr(slave, &settings);
  cfmakeraw(&settings);
  tcsetattr(slave, TCSANOW, &settings);
  return {master, slave};
}

/// In the child, where only async-signal-safe calls are allowed: the parent may have threads.
[[noreturn]] void Execute(char* const* arguments, const ProcessOptions& options, int out, int err) {
  dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
  dup2(out, STDOUT_FILENO);
  dup2(err, STDERR_FILENO);
  bool ready = options.working_directory.empty() || chdir(options.working_directory.c_str()) == 0;
  const auto limit_to = [&ready](auto resource, std::uint64_t value) {
    const rlimit limit{value, value};
    if (value > 0) ready = ready && setrlimit(resource, &limit) == 0;
  };
  limit_to(RLIMIT_FSIZE, options.file_size_limit);
  limit_to(RLIMIT_AS, options.address_space_limit);
  limit_to(RLIMIT_NOFILE, options.descriptor_limit);
  if (ready) execv(arguments[0], arguments);
  _exit(127);
}

/// Appends what can be read now. False at the end of the stream.
bool Drain(int fd, std::string& text) {
  std::array<char, 65536> buffer{};
  const ssize_t count = read(fd, buffer.data(), buffer.size());
  if (count > 0) text.append(buffer.data(), static_cast<std::size_t>(count));
  // A terminal whose other side has closed reports EIO.
  return count > 0 || (count < 0 && (errno == EINTR || errno == EAGAIN));
}

}  // namespace

ProcessResult RunProcess(std::vector<std::string> arguments, const ProcessOptions& options) {
  std::vector<char*> pointers;
  pointers.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  const Channel out = OpenPipe();
  const Channel err = options.stderr_is_terminal ? OpenTerminal() : OpenPipe();
  const pid_t pid = Check(fork(), "fork");
  if (pid == 0) Execute(pointers.data(), options, out[1], err[1]);
  close(out[1]);
  close(err[1]);

  ProcessResult result;
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline = Clock::now() + options.time_limit;
  const int process = Check(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)), "pidfd_open");
  std::array<pollfd, 3> waits{{{out[0], POLLIN, 0}, {err[0], POLLIN, 0}, {process, POLLIN, 0}}};
  // poll skips entries whose descriptor is negative: that is how finished ones leave.
  while (waits[0].fd >= 0 || waits[1].fd >= 0 || waits[2].fd >= 0) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0 && !result.timed_out) {
      result.timed_out = true;
      kill(pid, SIGKILL);
    }
    const int timeout_ms = result.timed_out ? -1 : static_cast<int>(left.count()) + 1;
    for (pollfd& wait : waits) wait.revents = 0;
    if (poll(waits.data(), waits.size(), timeout_ms) < 0) continue;
    if (waits[0].revents != 0 && !Drain(waits[0].fd, result.out)) waits[0].fd = -1;
    if (waits[1].revents != 0) {
      if (!Drain(waits[1].fd, result.err)) waits[1].fd = -1;
      if (options.on_stderr) options.on_stderr(result.err);
    }
    if (waits[2].revents != 0) waits[2].fd = -1;
  }
  for (const int fd : {out[0], err[0], process}) close(fd);
  int status = 0;
  Check(waitpid(pid, &status, 0), "waitpid");
  if (WIFEXITED(status)) result.exit_code = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  return result;
}

}  // namespace motrace::testing

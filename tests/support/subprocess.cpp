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
#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace motrace::testing {
namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void Fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

/// A file descriptor that closes itself.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() { Reset(); }
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    Reset();
    fd_ = std::exchange(other.fd_, -1);
    return *this;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  [[nodiscard]] int get() const { return fd_; }
  void Reset() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

 private:
  int fd_ = -1;
};

struct Channel {
  Descriptor ours;
  Descriptor childs;
};

Channel OpenPipe() {
  std::array<int, 2> fds{};
  if (pipe2(fds.data(), O_CLOEXEC) != 0) Fail("pipe2");
  return {Descriptor(fds[0]), Descriptor(fds[1])};
}

Channel OpenTerminal() {
  Descriptor master(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
  std::array<char, 128> name{};
  if (master.get() < 0 || grantpt(master.get()) != 0 || unlockpt(master.get()) != 0 ||
      ptsname_r(master.get(), name.data(), name.size()) != 0) {
    Fail("pseudo terminal");
  }
  Descriptor slave(open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC));
  if (slave.get() < 0) Fail(name.data());
  // Bytes as the program writes them: no "\n" to "\r\n".
  termios settings{};
  tcgetattr(slave.get(), &settings);
  cfmakeraw(&settings);
  tcsetattr(slave.get(), TCSANOW, &settings);
  return {std::move(master), std::move(slave)};
}

std::vector<std::string> Environment(const std::map<std::string, std::string>& changes) {
  std::vector<std::string> entries;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    if (changes.count(text.substr(0, text.find('='))) == 0) entries.push_back(text);
  }
  for (const auto& [name, value] : changes) entries.emplace_back(name).append("=").append(value);
  return entries;
}

std::vector<char*> Pointers(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  pointers.reserve(strings.size() + 1);
  for (std::string& string : strings) pointers.push_back(string.data());
  pointers.push_back(nullptr);
  return pointers;
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

ProcessResult RunProcess(const std::vector<std::string>& arguments, const ProcessOptions& options) {
  std::vector<std::string> argument_storage = arguments;
  std::vector<std::string> environment_storage = Environment(options.environment);
  const std::vector<char*> argv = Pointers(argument_storage);
  const std::vector<char*> envp = Pointers(environment_storage);

  Channel out = OpenPipe();
  Channel err = options.stderr_is_terminal ? OpenTerminal() : OpenPipe();
  Channel exec_error = OpenPipe();  // closes by itself when exec succeeds

  const Clock::time_point begin = Clock::now();
  const pid_t pid = fork();
  if (pid < 0) Fail("fork");
  if (pid == 0) {
    // Only async-signal-safe calls from here on: the parent may have threads.
    const int no_input = open("/dev/null", O_RDONLY);
    dup2(no_input, STDIN_FILENO);
    dup2(out.childs.get(), STDOUT_FILENO);
    dup2(err.childs.get(), STDERR_FILENO);
    bool ready = options.working_directory.empty() || chdir(options.working_directory.c_str()) == 0;
    if (options.file_size_limit > 0) {
      const rlimit limit{options.file_size_limit, RLIM_INFINITY};
      std::signal(SIGXFSZ, SIG_IGN);  // a write beyond the limit fails instead of killing
      ready = ready && setrlimit(RLIMIT_FSIZE, &limit) == 0;
    }
    const auto limit_to = [&ready](auto resource, std::uint64_t value) {
      const rlimit limit{value, value};
      if (value > 0) ready = ready && setrlimit(resource, &limit) == 0;
    };
    limit_to(RLIMIT_AS, options.address_space_limit);
    limit_to(RLIMIT_NOFILE, options.descriptor_limit);
    if (ready) execve(argv[0], argv.data(), envp.data());
    const int error = errno;
    [[maybe_unused]] const ssize_t written = write(exec_error.childs.get(), &error, sizeof error);
    _exit(127);
  }
  out.childs.Reset();
  err.childs.Reset();
  exec_error.childs.Reset();

  int error = 0;
  if (read(exec_error.ours.get(), &error, sizeof error) == static_cast<ssize_t>(sizeof error)) {
    waitpid(pid, nullptr, 0);
    errno = error;
    Fail("run " + arguments.at(0));
  }

  ProcessResult result;
  const Clock::time_point deadline = begin + options.time_limit;
  const Descriptor process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
  if (process.get() < 0) Fail("pidfd_open");
  std::array<pollfd, 3> waits{
      {{out.ours.get(), POLLIN, 0}, {err.ours.get(), POLLIN, 0}, {process.get(), POLLIN, 0}}};
  // poll skips entries whose descriptor is negative: that is how finished ones leave.
  while (waits[0].fd >= 0 || waits[1].fd >= 0 || waits[2].fd >= 0) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0 && !result.timed_out) {
      result.timed_out = true;
      kill(pid, SIGKILL);
    }
    const int timeout_ms = result.timed_out ? -1 : static_cast<int>(left.count()) + 1;
    if (poll(waits.data(), waits.size(), timeout_ms) < 0 && errno != EINTR) Fail("poll");
    if (waits[0].revents != 0 && !Drain(waits[0].fd, result.out)) waits[0].fd = -1;
    if (waits[1].revents != 0) {
      if (!Drain(waits[1].fd, result.err)) waits[1].fd = -1;
      if (options.on_stderr) options.on_stderr(result.err);
    }
    if (waits[2].revents != 0) {
      waits[2].fd = -1;
      result.elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin);
    }
    for (pollfd& wait : waits) wait.revents = 0;
  }

  int status = 0;
  if (waitpid(pid, &status, 0) != pid) Fail("waitpid");
  if (WIFEXITED(status)) result.exit_code = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  return result;
}

}  // namespace motrace::testing

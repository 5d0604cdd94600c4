#ifndef MOTRACE_TESTS_SUPPORT_FILE_SERVER_H_
#define MOTRACE_TESTS_SUPPORT_FILE_SERVER_H_

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace motrace::testing {

/// A web server of the test's own, on the loopback device: `samples/file_server.py`.
class FileServer {
 public:
  explicit FileServer(const std::string& folder) {
    std::array<int, 2> to{};
    std::array<int, 2> from{};
    if (pipe(to.data()) != 0 || pipe(from.data()) != 0) std::abort();
    child_ = fork();
    if (child_ == 0) {
      dup2(to[0], STDIN_FILENO);
      dup2(from[1], STDOUT_FILENO);
      close(to[1]);
      execl(MOTRACE_FILE_SERVER, MOTRACE_FILE_SERVER, folder.c_str(), nullptr);
      _exit(127);
    }
    close(to[0]);
    close(from[1]);
    requests_ = fdopen(to[1], "w");
    answers_ = fdopen(from[0], "r");
    // NOLINTNEXTLINE(cert-err34-c): our own server's numbers
    if (std::fscanf(answers_, "%d", &port_) != 1) std::abort();
  }
  ~FileServer() {
    std::fclose(requests_);  // which ends it
    std::fclose(answers_);
    waitpid(child_, nullptr, 0);
  }
  FileServer(const FileServer&) = delete;
  FileServer& operator=(const FileServer&) = delete;

  /// @param way how the server serves the file, see there.
  /// @param user "name:password@", or empty.
  [[nodiscard]] std::string Address(const std::string& way, const std::string& user = "") const {
    return "http://" + user + "127.0.0.1:" + std::to_string(port_) + "/" + way;
  }

  struct Served {
    int requests = 0;
    int at_once = 0;
    int connections = 0;
    long bytes = 0;
  };
  /// What it has served since it was last asked.
  [[nodiscard]] Served TakeServed() {
    Served served;
    std::fputs("\n", requests_);
    std::fflush(requests_);
    // NOLINTNEXTLINE(cert-err34-c): as above
    if (std::fscanf(answers_, "%d %d %d %ld", &served.requests, &served.at_once,
                    &served.connections, &served.bytes) != 4) {
      std::abort();
    }
    return served;
  }

 private:
  pid_t child_ = -1;
  FILE* requests_ = nullptr;
  FILE* answers_ = nullptr;
  int port_ = 0;
};

}  // namespace motrace::testing

#endif  // MOTRACE_TESTS_SUPPORT_FILE_SERVER_H_

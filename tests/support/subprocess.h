#ifndef MOTRACE_TESTS_SUPPORT_SUBPROCESS_H_
#define MOTRACE_TESTS_SUPPORT_SUBPROCESS_H_

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace motrace::testing {

struct ProcessResult {
  int exit_code = -1;      ///< 0 to 255; -1 when a signal ended the process
  int signal = 0;          ///< the signal that ended it; 0 = it exited
  bool timed_out = false;  ///< the time limit passed and the process was ended
  std::string out;         ///< standard output, whole
  std::string err;         ///< standard error, whole
};

struct ProcessOptions {
  std::filesystem::path working_directory = ".";
  std::chrono::seconds time_limit{60};    ///< only bounds a hang
  std::uint64_t file_size_limit = 0;      ///< bytes of a written file; 0 = none
  std::uint64_t address_space_limit = 0;  ///< bytes; 0 = none
  std::uint64_t descriptor_limit = 0;     ///< 0 = none
};

/// Runs a program to its end and returns all it printed. arguments[0] is the program's path.
/// The exit code is 127 when it can't be started.
ProcessResult RunProcess(const std::vector<std::string>& arguments,
                         const ProcessOptions& options = {});

}  // namespace motrace::testing

#endif  // MOTRACE_TESTS_SUPPORT_SUBPROCESS_H_

#ifndef MOTRACE_BENCH_FLOW_PROGRAM_H_
#define MOTRACE_BENCH_FLOW_PROGRAM_H_

/// What the programs here share: their `main`.

#include <cstdio>
#include <exception>
#include <string>
#include <vector>

namespace lum_bench {

constexpr int kBadUsage = 2;

/// Runs `body` with the program's arguments and gives its exit status. Prints `help` for `--help`
/// and, to stderr, for `kBadUsage`; an exception becomes a line on stderr and status 1.
template <typename Body>
int runProgram(int argc, char** argv, const char* help, const Body& body) {
  try {
    const std::vector<std::string> args(argv + 1, argv + argc);
    if (args.size() == 1 && args[0] == "--help") {
      std::fputs(help, stdout);
      return 0;
    }
    const int status = body(args);
    if (status == kBadUsage) std::fputs(help, stderr);
    return status;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
    return 1;
  }
}

}  // namespace lum_bench

#endif  // MOTRACE_BENCH_FLOW_PROGRAM_H_

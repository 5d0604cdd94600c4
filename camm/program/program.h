// What the program's verbs share: options, messages, exit codes, output files.
#ifndef CAMM_PROGRAM_PROGRAM_H_
#define CAMM_PROGRAM_PROGRAM_H_

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <list>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "av_toolbox/address.h"
#include "camm/program/formats/text_out.h"
#include "camm/recording.h"

namespace camm::program {

/// The program's exit codes; those of reading a file are `Status`.
enum ExitCode : int {
  kExitWhole = 0,
  kExitPartial = 1,  ///< something is missing or wrong, and named on standard error
  kExitUsage = 2,
  kExitCannot = 3,  ///< an input cannot be opened, or an output not be written
  kExitNoTrack = 4,
  kExitNoSamples = 5,
};

/// A wrong command line that the parser cannot see: exit code 2.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};
/// An output that cannot be written: exit code 3.
struct OutputError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The options that every verb has.
struct CommonOptions {
  bool quiet = false;  ///< errors only
  bool json = false;
};

/// What the command line asks for: runs, and returns the exit code.
using Run = std::function<int()>;

/// Each adds its verb. Parsing sets `run` if the verb was given.
void AddInfo(CLI::App& app, Run& run);
void AddExport(CLI::App& app, Run& run);
void AddInject(CLI::App& app, Run& run);
void AddCopy(CLI::App& app, Run& run);
void AddCheck(CLI::App& app, Run& run);
void AddReport(CLI::App& app, Run& run);

/// A verb with the common options.
/// @param example a command line and what it does, shown at the end of the help.
CLI::App* AddVerb(CLI::App& app, const std::string& name, const std::string& description,
                  const std::string& example, CommonOptions& common);

using formats::Escaped;
using formats::Printable;

/// "camm: TEXT" on standard error, as one line, made printable. Any thread.
void Message(std::string_view text);
/// The same unless `quiet`.
void Note(const CommonOptions& common, std::string_view text);

/// What reading said, for people: problems as notes, failure as a message.
void ReportReading(const CommonOptions& common, const std::string& path, const ReadResult& result);

/// Output files that appear whole, together, or not at all: written beside their final names and
/// renamed at the end. Existing files are kept unless `force`. One thread.
class OutputFiles {
 public:
  explicit OutputFiles(bool force);
  /// Removes what was not committed.
  ~OutputFiles();
  OutputFiles(const OutputFiles&) = delete;
  OutputFiles& operator=(const OutputFiles&) = delete;

  /// Opens a file that will be `path`; makes its folders.
  /// @throws OutputError
  formats::TextOut& Create(const std::filesystem::path& path);
  /// Standard output, written as it comes.
  formats::TextOut& StandardOutput();

  /// Gives every file its name, in the order of creation.
  /// @return the paths.
  /// @throws OutputError
  std::vector<std::filesystem::path> Commit();

 private:
  struct File;
  void Rename(File& file) const;

  bool force_;
  std::list<File> files_;
};

/// Redraws `text()` on standard error twice a second until destruction, which erases it. Draws
/// nothing where standard error is not a terminal, or if `quiet`.
class Progress {
 public:
  Progress(const CommonOptions& common, std::function<std::string()> text);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

 private:
  struct Drawing;
  std::unique_ptr<Drawing> drawing_;
};

/// The progress of a verb that takes its files one after another.
class FilesProgress {
 public:
  FilesProgress(const CommonOptions& common, const std::vector<std::string>& files)
      : line_(common, [this, &files] {
          const std::size_t at = std::max<std::size_t>(at_, 1);
          return std::to_string(at) + " of " + std::to_string(files.size()) + ": " +
                 lum::ShownName(files[at - 1]);
        }) {}
  /// Before each file.
  void Next() { ++at_; }

 private:
  std::atomic<std::size_t> at_{0};
  const Progress line_;
};

/// Calls `work(i)` for 0 to count - 1, up to `jobs` at once.
void ForEach(std::size_t count, int jobs, const std::function<void(std::size_t)>& work);

/// The folder of each input below the output folder, when there are several inputs: the file's name
/// without extension, numbered where two would be the same. Never a way out of the folder.
std::vector<std::string> FolderNames(const std::vector<std::string>& inputs);

}  // namespace camm::program

#endif  // CAMM_PROGRAM_PROGRAM_H_

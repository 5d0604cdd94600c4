#include "camm/program/program.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>
#include <utility>

#include "av_toolbox/address.h"
#include "camm/program/summary_text.h"

namespace camm::program {
namespace fs = std::filesystem;
namespace {

std::mutex& TerminalMutex() {
  static std::mutex mutex;
  return mutex;
}

std::string Reason(int error) { return std::generic_category().message(error); }

/// One screen of 24 lines and 80 columns: what the usage line says already is not said again.
class VerbHelp : public CLI::Formatter {
 public:
  VerbHelp() {
    column_width(25);
    label("REQUIRED", "");
  }
  std::string make_help(const CLI::App* app, std::string name,
                        CLI::AppFormatMode mode) const override {
    return make_description(app) + make_usage(app, name) + app->get_footer() + "\n\n" +
           make_groups(app, mode);
  }
  std::string make_group(std::string /*title*/, bool /*is_positional*/,
                         std::vector<const CLI::Option*> options) const override {
    std::string lines;
    for (const CLI::Option* option : options) lines += make_option(option, false);
    return lines;
  }
};

}  // namespace

CLI::App* AddVerb(CLI::App& app, const std::string& name, const std::string& description,
                  const std::string& example, CommonOptions& common) {
  CLI::App* verb = app.add_subcommand(name, description);
  verb->set_help_flag("-h,--help", "")->group("");  // its reader knows it
  verb->add_flag("-q,--quiet", common.quiet, "Only errors on standard error");
  verb->add_flag("--json", common.json, "Standard output as JSON");
  verb->footer("Example: " + example);
  verb->formatter(std::make_shared<VerbHelp>());
  return verb;
}

void Message(std::string_view text) {
  const std::string line = "camm: " + Printable(text) + "\n";
  const std::lock_guard<std::mutex> lock(TerminalMutex());
  if (isatty(STDERR_FILENO) == 1) std::fputs("\r\033[K", stderr);  // a line of progress
  std::fwrite(line.data(), 1, line.size(), stderr);
}

void Note(const CommonOptions& common, std::string_view text) {
  if (!common.quiet) Message(text);
}

void ReportReading(const CommonOptions& common, const std::string& path, const ReadResult& result) {
  const std::string name = lum::ShownName(path);
  for (const Problem& problem : result.problems) Note(common, name + ": " + problem.text);
  if (result.status != Status::kWhole) Message(name + ": " + WhyUnread(result));
}

struct OutputFiles::File {
  File(fs::path final_path, fs::path path_until_then, int descriptor)
      : path(std::move(final_path)),
        temporary(std::move(path_until_then)),
        fd(descriptor),
        text([this](std::string_view piece) { Write(piece); }) {}
  ~File() {
    if (!temporary.empty()) {
      if (fd >= 0) close(fd);
      unlink(temporary.c_str());
    }
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  void Write(std::string_view piece) const {
    while (!piece.empty()) {
      const ssize_t written = write(fd, piece.data(), piece.size());
      if (written < 0 && errno == EINTR) continue;
      if (written < 0) Fail(errno);
      piece.remove_prefix(static_cast<std::size_t>(written));
    }
  }
  [[noreturn]] void Fail(int error) const {
    throw OutputError(path.string() + ": cannot be written: " + Reason(error));
  }

  fs::path path;       // empty: standard output
  fs::path temporary;  // empty: standard output, or renamed
  int fd;
  formats::TextOut text;
};

OutputFiles::OutputFiles(bool force) : force_(force) {}
OutputFiles::~OutputFiles() = default;

formats::TextOut& OutputFiles::Create(const fs::path& path) {
  std::error_code error;
  if (!force_ && fs::exists(fs::symlink_status(path, error))) {
    throw OutputError(path.string() + ": exists; --force replaces it");
  }
  if (path.has_parent_path()) {
    fs::create_directories(path.parent_path(), error);
    if (error) {
      throw OutputError(path.parent_path().string() + ": cannot be made: " + error.message());
    }
  }
  static std::atomic<unsigned> count{0};
  const fs::path temporary =
      path.parent_path() /
      fmt::format(".{}.{}-{}.part", path.filename().string().substr(0, 200), getpid(), count++);
  const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (fd < 0) {
    throw OutputError(path.string() + ": cannot be written: " + Reason(errno));
  }
  return files_.emplace_back(path, temporary, fd).text;
}

formats::TextOut& OutputFiles::StandardOutput() {
  return files_.emplace_back("standard output", fs::path(), STDOUT_FILENO).text;
}

std::vector<fs::path> OutputFiles::Commit() {
  for (File& file : files_) {
    file.text.Flush();
    if (file.temporary.empty()) continue;
    // Some file systems report only here that the disk is full.
    if (close(std::exchange(file.fd, -1)) != 0) file.Fail(errno);
  }
  std::vector<fs::path> paths;
  for (File& file : files_) {
    if (file.temporary.empty()) continue;
    Rename(file);
    paths.push_back(file.path);
  }
  files_.clear();
  return paths;
}

void OutputFiles::Rename(File& file) const {
  int result = -1;
  if (!force_) {
    result =
        renameat2(AT_FDCWD, file.temporary.c_str(), AT_FDCWD, file.path.c_str(), RENAME_NOREPLACE);
    if (result != 0 && errno == EEXIST) {
      throw OutputError(file.path.string() + ": exists; --force replaces it");
    }
  }
  // Also where the file system cannot tell: the file was not there when it was created.
  if (result != 0) result = std::rename(file.temporary.c_str(), file.path.c_str());
  if (result != 0) file.Fail(errno);
  file.temporary.clear();
}

struct Progress::Drawing {
  explicit Drawing(std::function<std::string()> what)
      : text(std::move(what)), thread([this] { Draw(); }) {}
  ~Drawing() {
    {
      const std::lock_guard<std::mutex> lock(mutex);
      over = true;
    }
    wake.notify_all();
    thread.join();
  }
  Drawing(const Drawing&) = delete;
  Drawing& operator=(const Drawing&) = delete;

  void Draw() {
    bool drawn = false;
    std::unique_lock<std::mutex> lock(mutex);
    while (!wake.wait_for(lock, std::chrono::milliseconds(500), [this] { return over; })) {
      const std::string line = "\rcamm: " + Printable(text()) + "\033[K";
      const std::lock_guard<std::mutex> terminal(TerminalMutex());
      std::fputs(line.c_str(), stderr);
      std::fflush(stderr);
      drawn = true;
    }
    const std::lock_guard<std::mutex> terminal(TerminalMutex());
    if (drawn) std::fputs("\r\033[K", stderr);
  }

  std::function<std::string()> text;
  std::mutex mutex;
  std::condition_variable wake;
  bool over = false;   // guarded by mutex
  std::thread thread;  // last: starts after everything it uses exists
};

Progress::Progress(const CommonOptions& common, std::function<std::string()> text) {
  if (!common.quiet && isatty(STDERR_FILENO) == 1) {
    drawing_ = std::make_unique<Drawing>(std::move(text));
  }
}

Progress::~Progress() = default;

void ForEach(std::size_t count, int jobs, const std::function<void(std::size_t)>& work) {
  std::atomic<std::size_t> next{0};
  const auto take = [&] {
    for (std::size_t i = next++; i < count; i = next++) work(i);
  };
  std::vector<std::thread> helpers;
  const std::size_t threads = std::min(count, static_cast<std::size_t>(std::max(jobs, 1)));
  for (std::size_t i = 1; i < threads; ++i) helpers.emplace_back(take);
  take();
  for (std::thread& helper : helpers) helper.join();
}

std::vector<std::string> FolderNames(const std::vector<std::string>& inputs) {
  std::set<std::string> taken;
  std::vector<std::string> names;
  for (const std::string& input : inputs) {
    const fs::path file = fs::path(lum::ShownName(input)).filename();
    std::string stem = file.stem().string();
    if (stem.empty() || stem == "." || stem == "..") stem = file.string();
    if (stem.empty() || stem == "." || stem == "..") stem = "video";
    std::string name = stem;
    for (int number = 2; !taken.insert(name).second; ++number) {
      name = fmt::format("{}-{}", stem, number);
    }
    names.push_back(name);
  }
  return names;
}

}  // namespace camm::program

#include "av_toolbox/remote_file.h"

#include <curl/curl.h>
#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <mutex>
#include <new>
#include <random>
#include <string_view>
#include <system_error>
#include <utility>

#include "av_toolbox/ffmpeg_compat.h"
#include "base/log_message.h"

namespace lum {
namespace {

using Clock = std::chrono::steady_clock;

// Bytes.
constexpr int64_t kKiB = 1024;
constexpr int64_t kFirstPart = 64 * kKiB;           // also where reads are not announced
constexpr int64_t kLargestPart = 512 * kKiB;        // of a request
constexpr int64_t kLargestReadAhead = 4096 * kKiB;  // of a read that was not announced
constexpr int64_t kLargestGap = 32 * kKiB;          // between parts that one request asks for
constexpr int64_t kAhead = 8192 * kKiB;             // of what was announced and not read
constexpr int64_t kHeld = 32768 * kKiB;             // in all
constexpr int64_t kLargestErrorPage = 64 * kKiB;    // read, so that the connection stays
constexpr long kReceiveBuffer = 128 * kKiB;
constexpr long kSlowest = kKiB;  // a second; below, nothing comes

constexpr int kWantedToUnwanted = 4;  // at least, in a request for several parts
constexpr long kRedirects = 5;
constexpr std::chrono::seconds kLongestPause{30};

struct EasyDeleter {
  void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};

// What the headers of an answer said.
struct Answer {
  int status = 0;
  int64_t first = -1;  // byte, of the part that it holds
  int64_t last = -1;
  int64_t size = -1;  // of the file
  std::string entity_tag;
  std::string date;
};

// The value of a header line of that name, which must end in a colon; null where it is another one.
const char* ValueOf(const std::string& line, const char* name) {
  const size_t size = std::strlen(name);
  if (strncasecmp(line.c_str(), name, size) != 0) return nullptr;
  return line.c_str() + std::min(line.find_first_not_of(" \t", size), line.size());
}

// Takes `before` and the number after it off the text's beginning.
template <typename Number>
bool Take(std::string_view& text, char before, Number& number) {
  if (text.empty() || text.front() != before) return false;
  const auto end = std::from_chars(text.data() + 1, text.data() + text.size(), number);
  text.remove_prefix(static_cast<size_t>(end.ptr - text.data()));
  return end.ec == std::errc();
}

// Takes the part and the size that a Content-Range header gives; all are -1 where it is none.
void TakeRange(std::string_view text, Answer& answer) {
  constexpr std::string_view kUnit = "bytes";
  answer.first = answer.last = answer.size = -1;
  if (text.substr(0, kUnit.size()) != kUnit) return;
  text.remove_prefix(kUnit.size());
  constexpr std::string_view kNone = " *";
  if (text.substr(0, kNone.size()) == kNone) {
    text.remove_prefix(kNone.size());
    Take(text, '/', answer.size);
  } else if (!Take(text, ' ', answer.first) || !Take(text, '-', answer.last) ||
             !Take(text, '/', answer.size)) {
    answer.size = -1;
  }
}

void TakeHeader(const std::string& line, Answer& answer) {
  if (strncasecmp(line.c_str(), "HTTP/", 5) == 0) {
    answer = {};  // those before it belong to a redirect, or to an answer of a proxy's
    std::string_view rest = line;
    rest.remove_prefix(std::min(rest.find(' '), rest.size()));
    Take(rest, ' ', answer.status);
  } else if (const char* range = ValueOf(line, "content-range:")) {
    TakeRange(range, answer);
  } else if (const char* tag = ValueOf(line, "etag:")) {
    answer.entity_tag = tag;
  } else if (const char* date = ValueOf(line, "last-modified:")) {
    answer.date = date;
  }
}

bool MayPass(int status) { return status == 408 || status == 429 || status >= 500; }

bool MayPass(CURLcode result) {
  switch (result) {
    case CURLE_URL_MALFORMAT:
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_TOO_MANY_REDIRECTS:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_OUT_OF_MEMORY:
    case CURLE_FAILED_INIT:
      return false;
    default:
      return true;
  }
}

int ErrorOf(int status) {
  switch (status) {
    case 400:
      return AVERROR_HTTP_BAD_REQUEST;
    case 401:
      return AVERROR_HTTP_UNAUTHORIZED;
    case 403:
      return AVERROR_HTTP_FORBIDDEN;
    case 404:
      return AVERROR_HTTP_NOT_FOUND;
    default:
      return status >= 500 ? AVERROR_HTTP_SERVER_ERROR : AVERROR_HTTP_OTHER_4XX;
  }
}

bool IsHttps(const std::string& address) { return strncasecmp(address.c_str(), "https:", 6) == 0; }

// Between the scheme and the path.
bool NamesUser(const std::string& address) {
  const size_t host = address.find("://") + 3;
  return address.substr(host, address.find_first_of("/?#", host) - host).find('@') !=
         std::string::npos;
}

// While one lives, a write to a connection that the server has closed raises no signal here.
class WithoutBrokenPipes {
 public:
  WithoutBrokenPipes() {
    sigemptyset(&broken_pipe_);
    sigaddset(&broken_pipe_, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &broken_pipe_, &before_);
  }
  ~WithoutBrokenPipes() {
    if (sigismember(&before_, SIGPIPE) == 1) return;
    const timespec at_once{};
    while (sigtimedwait(&broken_pipe_, nullptr, &at_once) > 0) {
    }
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
  WithoutBrokenPipes(const WithoutBrokenPipes&) = delete;
  WithoutBrokenPipes& operator=(const WithoutBrokenPipes&) = delete;

 private:
  sigset_t broken_pipe_{};
  sigset_t before_{};
};

}  // namespace

struct RemoteFile::Multi {
  Multi() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    handle = curl_multi_init();
    LUM_CHECK(handle != nullptr) << "no memory for web requests";
  }
  ~Multi() { curl_multi_cleanup(handle); }
  Multi(const Multi&) = delete;
  Multi& operator=(const Multi&) = delete;

  CURLM* handle;
};

// A run of bytes of the file.
struct RemoteFile::Part {
  [[nodiscard]] int64_t end() const { return position + size; }
  [[nodiscard]] bool whole() const { return received == size && !easy; }

  RemoteFile* file = nullptr;
  int64_t position = 0;
  int64_t size = 0;
  int64_t begun_before_end = 0;      // bytes of all parts up to this one
  std::unique_ptr<uint8_t[]> bytes;  // NOLINT(modernize-avoid-c-arrays): not cleared
  int64_t received = 0;

  // Of the request under way.
  std::unique_ptr<CURL, EasyDeleter> easy;  // null between two attempts
  int attempts = 0;
  Clock::time_point due;  // of the next one
  Answer answer;
  bool accepted = false;
  int64_t error_page = 0;
};

RemoteFile::RemoteFile(std::string address, const Options& options)
    : address_(std::move(address)), options_(options), multi_(std::make_unique<Multi>()) {
  curl_multi_setopt(multi_->handle, CURLMOPT_MAX_TOTAL_CONNECTIONS, long{options_.requests});
  curl_multi_setopt(multi_->handle, CURLMOPT_MAXCONNECTS, long{options_.requests});
}

RemoteFile::~RemoteFile() {
  const WithoutBrokenPipes without_broken_pipes;
  for (const Part* part : under_way_) {
    if (part->easy) curl_multi_remove_handle(multi_->handle, part->easy.get());
  }
  parts_.clear();
  multi_.reset();
}

int RemoteFile::Open() {
  size_ = kFirstPart;  // until the answer tells
  Demand(0, 1);
  size_ = -1;
  Advance();
  while (error_ == 0 && size_ < 0) {
    Wait();
    Advance();
  }
  return error_;
}

int RemoteFile::Read(uint8_t* buffer, int size) {
  const int count = ReadSome(position_, buffer, static_cast<size_t>(size));
  if (count > 0) position_ += count;
  return count;
}

int64_t RemoteFile::Seek(int64_t offset, int whence) {
  whence &= ~AVSEEK_FORCE;
  if (whence == AVSEEK_SIZE) return size_;
  if (whence == SEEK_CUR) offset += position_;
  if (whence == SEEK_END) offset += size_;
  if (offset < 0) return AVERROR(EINVAL);
  return position_ = offset;
}

bool RemoteFile::ReadAt(int64_t position, uint8_t* buffer, size_t size) {
  while (size > 0) {
    const int count = ReadSome(position, buffer, size);
    if (count <= 0) return false;
    buffer += count;
    position += count;
    size -= static_cast<size_t>(count);
  }
  return true;
}

void RemoteFile::Prefetch(int64_t position, size_t size) {
  const int64_t end = position + std::min(static_cast<int64_t>(size), size_ - position);
  if (position < 0 || position >= end) return;
  if (!wanted_.empty()) {
    Range& last = wanted_.back();
    const int64_t gap = position - last.end;
    const int64_t unwanted = last.unwanted + gap;
    if (gap >= 0 && gap <= kLargestGap && end - last.begin <= kLargestPart &&
        end - last.begin >= (kWantedToUnwanted + 1) * unwanted) {
      last.end = end;
      last.unwanted = unwanted;
      return;
    }
  }
  wanted_.push_back({position, end, 0});
}

// Reads what one part has of it.
// @return bytes, AVERROR_EOF or another negative FFmpeg error.
int RemoteFile::ReadSome(int64_t position, uint8_t* buffer, size_t size) try {
  if (error_ != 0) return error_;
  if (position >= size_) return AVERROR_EOF;
  Advance();
  if (PartAt(position) == nullptr) {
    Demand(position, size);
    Advance();
  }
  Part& part = *PartAt(position);
  begun_up_to_read_ = std::max(begun_up_to_read_, part.begun_before_end);
  const auto count = static_cast<int64_t>(
      std::min(size, static_cast<size_t>(part.end() - position)));  // at most kLargestPart
  while (error_ == 0 && part.position + part.received < position + count) {
    Wait();
    Advance();
  }
  if (error_ != 0) return error_;
  std::copy_n(&part.bytes[static_cast<size_t>(position - part.position)], count, buffer);
  return static_cast<int>(count);
} catch (const std::bad_alloc&) {  // it may have left a part that nothing fetches
  Fail(AVERROR(ENOMEM), "no memory");
  return error_;
}

RemoteFile::Part* RemoteFile::PartAt(int64_t position) {
  auto after = parts_.upper_bound(position);
  if (after == parts_.begin()) return nullptr;
  Part& part = std::prev(after)->second;
  return position < part.end() ? &part : nullptr;
}

// Asks for bytes that are to be read now, whatever else is under way.
void RemoteFile::Demand(int64_t position, size_t size) {
  const auto announced = std::find_if(
      wanted_.begin(), wanted_.end(),
      [position](const Range& range) { return range.begin <= position && position < range.end; });
  if (announced != wanted_.end()) {
    announced->begin = position;
    wanted_.erase(wanted_.begin(), announced);
  } else {
    // The reader has left the way that was announced.
    wanted_.clear();
    read_ahead_ =
        position == unannounced_end_ ? std::min(2 * read_ahead_, kLargestReadAhead) : kFirstPart;
    const int64_t wanted = std::max(read_ahead_, static_cast<int64_t>(size));
    unannounced_end_ = position + std::min(wanted, size_ - position);
    wanted_.push_back({position, unannounced_end_, 0});
  }
  StartNext();
}

// Asks for the next piece of what is wanted and not there.
// @return false when there is none.
bool RemoteFile::StartNext() {
  while (!wanted_.empty()) {
    Range& range = wanted_.front();
    if (range.begin >= range.end) {
      wanted_.pop_front();
      continue;
    }
    if (const Part* there = PartAt(range.begin)) {
      range.begin = there->end();
      continue;
    }
    const auto next = parts_.upper_bound(range.begin);
    int64_t end = std::min(range.end, range.begin + kLargestPart);
    if (next != parts_.end()) end = std::min(end, next->first);
    Part& part = parts_[range.begin];
    part.file = this;
    part.position = range.begin;
    part.size = end - range.begin;
    part.bytes.reset(new uint8_t[static_cast<size_t>(part.size)]);
    part.begun_before_end = begun_ += part.size;
    held_ += part.size;
    order_.push_back(part.position);
    under_way_.push_back(&part);
    range.begin = end;

    while (held_ > kHeld) {
      const auto oldest = parts_.find(order_.front());
      if (!oldest->second.whole()) break;
      held_ -= oldest->second.size;
      parts_.erase(oldest);
      order_.pop_front();
    }
    return true;
  }
  return false;
}

void RemoteFile::Send(Part& part) {
  part.easy.reset(curl_easy_init());
  if (!part.easy) return Fail(AVERROR(ENOMEM), "no memory");
  const auto receive_header = [](char* data, size_t, size_t size, void* user) -> size_t {
    try {
      const size_t visible =
          size - static_cast<size_t>(std::count_if(data, data + size,
                                                   [](char c) { return c == '\r' || c == '\n'; }));
      TakeHeader(std::string(data, visible), static_cast<Part*>(user)->answer);
      return size;
    } catch (...) {  // no memory: it must not unwind through libcurl
      return 0;
    }
  };
  const auto receive = [](char* data, size_t, size_t size, void* user) -> size_t {
    Part& receiving = *static_cast<Part*>(user);
    if (receiving.answer.status >= 300) {
      receiving.error_page += static_cast<int64_t>(size);
      return receiving.error_page <= kLargestErrorPage ? size : 0;
    }
    if (!receiving.file->AcceptsAnswer(receiving)) return 0;
    const int64_t count = std::min(static_cast<int64_t>(size), receiving.size - receiving.received);
    std::copy_n(data, count, &receiving.bytes[static_cast<size_t>(receiving.received)]);
    receiving.received += count;
    return static_cast<size_t>(count);
  };
  // A redirect's target may be good for a while only.
  const bool directly = part.attempts == 0 && !redirected_to_.empty();
  const std::string range =
      std::to_string(part.position + part.received) + '-' + std::to_string(part.end() - 1);
  CURL* const easy = part.easy.get();
  curl_easy_setopt(easy, CURLOPT_URL, (directly ? redirected_to_ : address_).c_str());
  curl_easy_setopt(easy, CURLOPT_RANGE, range.c_str());
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, IsHttps(address_) ? "https" : "http,https");
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(easy, CURLOPT_MAXREDIRS, kRedirects);
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_PIPEWAIT, 1L);
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, long{options_.stall_s});
  curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, long{options_.stall_s});
  curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, kSlowest);
  curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, kReceiveBuffer);
  curl_easy_setopt(easy, CURLOPT_USERAGENT, "qvxmedia");
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, +receive_header);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, &part);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, +receive);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &part);
  curl_easy_setopt(easy, CURLOPT_PRIVATE, &part);
  part.answer = {};
  part.accepted = false;
  part.error_page = 0;
  ++part.attempts;
  curl_multi_add_handle(multi_->handle, easy);
}

// Asks for what is wanted as far as that may be, and takes what has come. Does not wait.
void RemoteFile::Advance() {
  while (static_cast<int>(under_way_.size()) < options_.requests &&
         begun_ - begun_up_to_read_ < kAhead && StartNext()) {
  }
  const auto now = Clock::now();
  for (Part* part : under_way_) {
    if (!part->easy && part->due <= now) Send(*part);
  }
  const WithoutBrokenPipes without_broken_pipes;
  int running = 0;
  curl_multi_perform(multi_->handle, &running);
  int left = 0;
  while (const CURLMsg* message = curl_multi_info_read(multi_->handle, &left)) {
    Part* part = nullptr;
    curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &part);
    Finish(*part, message->data.result);
  }
}

// Waits until something comes, or is to be asked for again.
void RemoteFile::Wait() {
  std::chrono::milliseconds pause{1000};
  for (const Part* part : under_way_) {
    if (part->easy) continue;
    pause = std::min(pause, std::chrono::ceil<std::chrono::milliseconds>(part->due - Clock::now()));
  }
  if (pause.count() <= 0) return;
  curl_multi_poll(multi_->handle, nullptr, 0, static_cast<int>(pause.count()), nullptr);
}

void RemoteFile::Finish(Part& part, int curl_result) {
  const auto result = static_cast<CURLcode>(curl_result);
  const std::unique_ptr<CURL, EasyDeleter> easy = std::move(part.easy);
  curl_multi_remove_handle(multi_->handle, easy.get());
  if (error_ != 0) return;
  const int status = part.answer.status;
  if (status == 416 && size_ < 0 && part.answer.size == 0) {
    size_ = part.size = 0;  // an empty file has no part
  } else if (status >= 400) {
    const std::string problem = "the server answered " + std::to_string(status);
    const bool elsewhere = part.attempts == 1 && !redirected_to_.empty();
    if (!MayPass(status) && !elsewhere) return Fail(ErrorOf(status), problem);
    curl_off_t seconds = 0;
    curl_easy_getinfo(easy.get(), CURLINFO_RETRY_AFTER, &seconds);
    return Retry(part, ErrorOf(status), problem, std::chrono::seconds(seconds));
  } else if (result != CURLE_OK) {
    const std::string problem = curl_easy_strerror(result);
    if (!MayPass(result)) return Fail(AVERROR(EPROTO), problem);
    return Retry(part, result == CURLE_OPERATION_TIMEDOUT ? AVERROR(ETIMEDOUT) : AVERROR(EIO),
                 problem, {});
  } else if (!AcceptsAnswer(part)) {
    return;
  } else if (!part.whole()) {
    return Retry(part, AVERROR(EIO), "the server's answer is too short", {});
  }
  char* address = nullptr;
  curl_easy_getinfo(easy.get(), CURLINFO_EFFECTIVE_URL, &address);
  // Where the address names a user, libcurl decides at each redirect who gets to know that.
  if (address != nullptr && address != address_ && !NamesUser(address_)) redirected_to_ = address;
  under_way_.erase(std::find(under_way_.begin(), under_way_.end(), &part));
}

// Whether the answer that comes in is what was asked for.
bool RemoteFile::AcceptsAnswer(Part& part) {
  if (part.accepted) return true;
  const Answer& answer = part.answer;
  if (answer.status != 206) {
    Fail(AVERROR(ENOTSUP),
         "the server gives whole files only, not parts of them: download it first");
    return false;
  }
  const bool first_answer = size_ < 0;
  if (!first_answer &&
      (answer.size != size_ || answer.entity_tag != entity_tag_ || answer.date != date_)) {
    Fail(AVERROR(ESTALE), "it changed while it was read");
    return false;
  }
  const int64_t end = first_answer ? std::min(part.end(), answer.size) : part.end();
  if (answer.first != part.position + part.received || answer.last != end - 1) {
    Fail(AVERROR_INVALIDDATA, "the server's answer is not the part that it was asked for");
    return false;
  }
  if (first_answer) {
    size_ = answer.size;
    entity_tag_ = answer.entity_tag;
    date_ = answer.date;
    held_ -= part.end() - end;
    part.size = end - part.position;
    unannounced_end_ = end;
  }
  return part.accepted = true;
}

void RemoteFile::Retry(Part& part, int error, const std::string& problem,
                       std::chrono::milliseconds at_least) {
  if (part.attempts >= options_.attempts) {
    return Fail(error, problem + ", at each of " + std::to_string(part.attempts) + " attempts");
  }
  // Of many readers that were turned away at a time, not all are to come back at a time.
  static thread_local std::minstd_rand random{std::random_device{}()};
  const auto pause = options_.pause * (1 << (part.attempts - 1));
  const std::chrono::milliseconds more(
      std::uniform_int_distribution<>(0, static_cast<int>(pause.count() / 2))(random));
  part.due = Clock::now() +
             std::min<std::chrono::milliseconds>(std::max(pause + more, at_least), kLongestPause);
}

// From now on every read fails.
void RemoteFile::Fail(int error, const std::string& problem) {
  if (error_ != 0) return;
  error_ = error;
  problem_ = problem;
}

}  // namespace lum

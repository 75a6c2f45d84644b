// LogFile.cpp - see LogFile.h.
#include "LogFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "Interruption.h"
#include "SameFile.h"

namespace zarn::tool {

namespace {

constexpr std::size_t kPieceSize = 256 * 1024;
constexpr std::size_t kMaxLine = 16 * 1024 * 1024;  // a longer one comes in pieces
constexpr std::size_t kStartSize = 64;              // enough for the time of the first line

// Read, it would never end.
bool IsOutput(const struct stat& file) {
  struct stat output {};
  return S_ISREG(file.st_mode) && ::fstat(STDOUT_FILENO, &output) == 0 && IsSameFile(file, output);
}

}  // namespace

LogFile::LogFile(std::string path, const LogFilter& filter, bool waits)
    : path_(std::move(path)),
      filter_(filter),
      waits_(waits),
      headPasses_(!filter.AsksForFields()) {}

LogFile::~LogFile() {
  if (fd_ >= 0) ::close(fd_);
}

int LogFile::Open() {
  // Opened anew, standard input would be read from its start, and a socket not at all.
  const int fd = path_ == kStandardInput
                     ? ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)
                     : ::open(path_.c_str(), O_RDONLY | O_CLOEXEC | (waits_ ? 0 : O_NONBLOCK));
  if (fd < 0) return errno;
  if (fd_ >= 0) ::close(fd_);
  fd_ = fd;
  read_ = 0;
  begin_ = complete_ = end_ = headAt_ = 0;
  headTime_ = kNoTime;
  headPasses_ = !filter_.AsksForFields();
  start_.clear();
  ::fstat(fd_, &opened_);
  if (!S_ISDIR(opened_.st_mode) && !IsOutput(opened_)) return 0;
  ::close(std::exchange(fd_, -1));
  return S_ISDIR(opened_.st_mode) ? EISDIR : EDEADLK;
}

bool LogFile::Next(LogRecord& record, bool withUnfinished) {
  if (fd_ < 0) return false;
  for (;;) {
    std::size_t begin = 0;
    std::size_t end = 0;
    if (!FindLine(begin, end)) {
      if (Fill()) continue;
      if (!withUnfinished || !FindUnfinished(begin, end)) return false;
    }
    if (Accept({buffer_.data() + begin, end - begin}, begin, record)) return true;
  }
}

// The next complete line that has the text which is looked for.
bool LogFile::FindLine(std::size_t& begin, std::size_t& end) {
  if (begin_ >= complete_) return false;
  const char* data = buffer_.data();
  const std::string& text = filter_.pattern.GetText();
  begin = begin_;
  if (!text.empty()) {
    const void* found = ::memmem(data + begin_, complete_ - begin_, text.data(), text.size());
    if (found == nullptr) {
      begin_ = complete_;
      return false;
    }
    const auto at = static_cast<std::size_t>(static_cast<const char*>(found) - data);
    const void* before = ::memrchr(data + begin_, '\n', at - begin_);
    if (before != nullptr)
      begin = static_cast<std::size_t>(static_cast<const char*>(before) - data) + 1;
    end = at;
  } else {
    end = begin;
  }
  const void* newline = std::memchr(data + end, '\n', complete_ - end);
  end = newline != nullptr ? static_cast<std::size_t>(static_cast<const char*>(newline) - data)
                           : complete_;
  begin_ = std::min(end + 1, complete_);
  return true;
}

bool LogFile::FindUnfinished(std::size_t& begin, std::size_t& end) {
  if (begin_ >= end_) return false;
  begin = begin_;
  end = begin_ = complete_ = end_;
  return std::string_view(buffer_.data() + begin, end - begin).find(filter_.pattern.GetText()) !=
         std::string_view::npos;
}

bool LogFile::Accept(std::string_view text, std::size_t begin, LogRecord& record) {
  record.inFormat = ParseLogLine(text, record.line);
  if (record.inFormat) {
    SetHead(record.line);
    headAt_ = begin;
  } else {
    FindHead(begin);
  }
  record.text = text;
  record.time = headTime_;
  return headPasses_ && filter_.pattern.Matches(text);
}

void LogFile::SetHead(const LogLine& line) {
  headTime_ = line.time;
  headPasses_ = filter_.Passes(line);
}

// Looks for it among lines that were passed over because they lack the text. No line is looked at
// twice.
void LogFile::FindHead(std::size_t before) {
  const char* data = buffer_.data();
  std::size_t end = before;
  while (end > headAt_) {
    const std::size_t last = end - 1;  // its newline
    const void* newline = ::memrchr(data + headAt_, '\n', last - headAt_);
    const std::size_t begin =
        newline != nullptr ? static_cast<std::size_t>(static_cast<const char*>(newline) - data) + 1
                           : headAt_;
    LogLine line;
    if (ParseLogLine({data + begin, last - begin}, line)) {
      SetHead(line);
      break;
    }
    end = begin;
  }
  headAt_ = std::max(headAt_, before);
}

// Reads on. False at the end of the file, for now.
bool LogFile::Fill() {
  if (IsInterrupted()) return false;  // a pipe may have more all the time
  FindHead(begin_);
  if (begin_ > 0) {
    std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = complete_ = headAt_ = 0;
  }
  if (end_ >= kMaxLine) {
    complete_ = end_;
    return true;
  }
  if (buffer_.size() - end_ < kPieceSize / 2) buffer_.resize(buffer_.size() + kPieceSize + end_);
  ssize_t count = 0;
  do {
    count = ::read(fd_, buffer_.data() + end_, buffer_.size() - end_);
  } while (count < 0 && errno == EINTR);
  if (count < 0 && errno != EAGAIN) error_ = errno;
  if (count <= 0) return false;
  const auto added = static_cast<std::size_t>(count);
  if (const void* newline = ::memrchr(buffer_.data() + end_, '\n', added))
    complete_ = static_cast<std::size_t>(static_cast<const char*>(newline) - buffer_.data()) + 1;
  end_ += added;
  read_ += count;
  RememberStart();
  return true;
}

void LogFile::RememberStart() {
  if (start_.size() >= kStartSize || !S_ISREG(opened_.st_mode)) return;
  start_.resize(kStartSize);
  const auto wanted = std::min(kStartSize, static_cast<std::size_t>(read_));
  const ssize_t count = ::pread(fd_, start_.data(), wanted, 0);
  start_.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
}

bool LogFile::TakeRest(LogRecord& record) {
  std::size_t begin = 0;
  std::size_t end = 0;
  return FindUnfinished(begin, end) && Accept({buffer_.data() + begin, end - begin}, begin, record);
}

LogFile::Change LogFile::FindChange() {
  struct stat now {};
  if (fd_ < 0 || !S_ISREG(opened_.st_mode) || ::stat(path_.c_str(), &now) != 0) return Change::none;
  if (!IsSameFile(now, opened_)) return Change::replaced;
  if (now.st_size < read_) return Change::begunAnew;
  // A new run may have written as much as the old one already, but not at the same time.
  char start[kStartSize];
  const ssize_t count = ::pread(fd_, start, start_.size(), 0);
  const bool same = std::string_view(start, count > 0 ? std::size_t(count) : 0) == start_;
  return same ? Change::none : Change::begunAnew;
}

}  // namespace zarn::tool

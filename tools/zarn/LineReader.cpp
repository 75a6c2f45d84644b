// LineReader.cpp - see LineReader.h.
#include "LineReader.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

namespace zarn::tool {

namespace {
constexpr std::size_t kMaxHeld = std::size_t{1} << 20;
}  // namespace

LineReader::LineReader(std::size_t longest, std::function<void()> notify)
    : longest_(longest), notify_(std::move(notify)), stop_(::eventfd(0, EFD_CLOEXEC)) {
  current_.number = 1;
  thread_ = std::thread([this] { Read(); });
}

LineReader::~LineReader() {
  {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
  }
  room_.notify_all();
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = ::write(stop_.Get(), &one, sizeof one);
  thread_.join();
}

std::optional<Line> LineReader::Take() {
  const std::lock_guard lock(mutex_);
  if (lines_.empty()) return std::nullopt;
  Line line = std::move(lines_.front());
  lines_.pop_front();
  held_ -= sizeof(Line) + line.text.size();
  room_.notify_all();
  return line;
}

bool LineReader::IsAtEnd() {
  const std::lock_guard lock(mutex_);
  return ended_ && lines_.empty();
}

int LineReader::GetError() {
  const std::lock_guard lock(mutex_);
  return error_;
}

void LineReader::Read() {
  std::array<char, 65536> buffer;
  ssize_t count = 0;
  while (WaitForInput()) {
    count = ::read(STDIN_FILENO, buffer.data(), buffer.size());
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (count <= 0) break;
    AddBytes(buffer.data(), static_cast<std::size_t>(count));
  }
  const int error = count < 0 ? errno : 0;
  if (started_) EndLine();  // the last line may lack its end
  {
    const std::lock_guard lock(mutex_);
    ended_ = true;
    error_ = error;
  }
  notify_();
}

// False when the thread is to end.
bool LineReader::WaitForInput() {
  std::array<pollfd, 2> ready{{{STDIN_FILENO, POLLIN, 0}, {stop_.Get(), POLLIN, 0}}};
  while (::poll(ready.data(), ready.size(), -1) < 0 && errno == EINTR) {
  }
  return (ready[1].revents & POLLIN) == 0;
}

void LineReader::AddBytes(const char* data, std::size_t size) {
  while (size != 0) {
    const auto* end = static_cast<const char*>(std::memchr(data, '\n', size));
    const std::size_t part = end == nullptr ? size : static_cast<std::size_t>(end - data);
    AddPart(data, part);
    if (end == nullptr) return;
    EndLine();
    data += part + 1;
    size -= part + 1;
  }
}

void LineReader::AddPart(const char* data, std::size_t size) {
  started_ = true;
  if (current_.tooLong) return;
  current_.tooLong = size > longest_ - current_.text.size();
  if (current_.tooLong) {
    current_.text = {};
  } else {
    current_.text.append(data, size);
  }
}

void LineReader::EndLine() {
  Line line = std::exchange(current_, Line{{}, current_.number + 1, false});
  started_ = false;
  bool first = false;
  {
    std::unique_lock lock(mutex_);
    room_.wait(lock, [this] { return stopped_ || held_ < kMaxHeld; });
    if (stopped_) return;
    held_ += sizeof(Line) + line.text.size();
    lines_.push_back(std::move(line));
    first = lines_.size() == 1;  // else whoever takes them has been told, and is not through
  }
  if (first) notify_();
}

}  // namespace zarn::tool

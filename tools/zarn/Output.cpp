// Output.cpp - see Output.h.
#include "Output.h"

#include <json/writer.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Latency.h"
#include "Link.h"

namespace zarn::tool {

namespace {

constexpr std::size_t kFlushSize = 64 * 1024;
constexpr std::size_t kShownBytes = 80;  // of a message that is not shown in full

// 0, or an errno value.
int WriteAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EAGAIN) {  // a terminal that somebody has made non-blocking
      pollfd ready{fd, POLLOUT, 0};
      ::poll(&ready, 1, -1);
    } else if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

Json::StreamWriterBuilder MakeWriterBuilder() {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  builder["precisionType"] = "decimal";
  builder["precision"] = 3;
  return builder;
}

}  // namespace

void Output::SetHooks(std::function<void()> dirty, std::function<void()> failed) {
  onDirty_ = std::move(dirty);
  onFailed_ = std::move(failed);
}

void Output::Object(const Json::Value& object) {
  static const Json::StreamWriterBuilder builder = MakeWriterBuilder();
  if (json_) AddLine(Json::writeString(builder, object));
}

void Output::PrintMessage(const std::string& peer, const Message& message, bool full) {
  const std::string_view data = message.data;
  std::size_t shown = data.size();
  if (!full && shown > kShownBytes) {
    shown = kShownBytes;
    // Not in the middle of a character.
    while (shown > kShownBytes - 3 && (static_cast<unsigned char>(data[shown]) & 0xc0U) == 0x80)
      --shown;
  }
  const bool cut = shown < data.size();
  const std::string text = Escape(data.substr(0, shown));
  if (!json_) {
    Text("{} type={} tag={} size={} \"{}\"{}", peer, message.type, message.tag, data.size(), text,
         cut ? "..." : "");
    return;
  }
  Json::Value object;
  object["event"] = "message";
  object["peer"] = peer;
  object["type"] = message.type;
  object["tag"] = message.tag;
  object["size"] = Json::UInt64(data.size());
  object["text"] = text;
  object["cut"] = cut;
  Object(object);
}

void Output::AddLine(std::string_view line) {
  if (error_ != 0) return;
  const bool wasEmpty = waiting_.empty();
  waiting_.append(line).push_back('\n');
  if (waiting_.size() >= kFlushSize) {
    Flush();
  } else if (wasEmpty && onDirty_) {
    onDirty_();
  }
}

bool Output::Flush() {
  if (error_ == 0 && !waiting_.empty()) {
    if (const int error = WriteAll(STDOUT_FILENO, waiting_); error != 0) Fail(error);
    waiting_.clear();
  }
  return error_ == 0;
}

void Output::Fail(int error) {
  error_ = error;
  if (error != EPIPE) Complain("standard output: {}", std::strerror(error));
  if (onFailed_) onFailed_();
}

bool IsOutputClosed(int milliseconds) {
  pollfd output{STDOUT_FILENO, 0, 0};
  return ::poll(&output, 1, milliseconds) > 0;
}

void ComplainLine(const std::string& text) { WriteAll(STDERR_FILENO, "zarn: " + text + "\n"); }

void AddRoundTrips(Json::Value& object, const Latency& latency) {
  if (latency.GetCount() == 0) return;
  object["min_us"] = latency.GetMin();
  object["mean_us"] = latency.GetMean();
  object["p50_us"] = latency.GetPercentile(50);
  object["p90_us"] = latency.GetPercentile(90);
  object["p99_us"] = latency.GetPercentile(99);
  object["p99_9_us"] = latency.GetPercentile(99.9);
  object["max_us"] = latency.GetMax();
}

std::string FormatBytes(double bytes) {
  constexpr const char* kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
  if (bytes < 1024) return fmt::format("{:.0f} bytes", bytes);
  std::size_t unit = 0;
  for (bytes /= 1024; bytes >= 1024 && unit < 3; bytes /= 1024) ++unit;
  return fmt::format("{:.1f} {}", bytes, kUnits[unit]);
}

}  // namespace zarn::tool

// Progress.cpp - see Progress.h.
#include "Progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace zarn::tool {

namespace {
constexpr int kWidth = 30;
}  // namespace

Progress::Progress() : enabled_(::isatty(STDERR_FILENO) == 1) {}

void Progress::Show(double fraction, const std::string& text) {
  if (!enabled_) return;
  const double part = std::clamp(fraction, 0.0, 1.0);
  const std::string bar(static_cast<std::size_t>(part * kWidth), '#');
  fmt::print(stderr, "\r[{:-<{}}] {:3.0f} % {}\x1b[K", bar, kWidth, part * 100, text);
  std::fflush(stderr);
  shown_ = true;
}

void Progress::Clear() {
  if (!shown_) return;
  fmt::print(stderr, "\r\x1b[K");
  std::fflush(stderr);
  shown_ = false;
}

}  // namespace zarn::tool

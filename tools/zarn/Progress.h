// Progress.h - a progress bar, for people who watch.
#pragma once

#include <string>

namespace zarn::tool {

// One line on standard error that is drawn over again; nothing unless that is a terminal.
class Progress {
 public:
  Progress();
  ~Progress() { Clear(); }

  void Show(double fraction, const std::string& text);
  void Clear();

 private:
  const bool enabled_;
  bool shown_ = false;
};

}  // namespace zarn::tool

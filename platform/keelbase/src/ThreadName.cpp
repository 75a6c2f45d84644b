// ThreadName.cpp - see ThreadName.h.
#include "keelbase/internal/ThreadName.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "keelbase/CAWTrace.h"

namespace keelbase::internal {

std::uint64_t CurrentThreadNumber() {
  thread_local const auto number = static_cast<std::uint64_t>(::gettid());
  return number;
}

CAWString DescribeThread(std::uint64_t number) {
  CAWString text = "thread " + std::to_string(number);
  std::ifstream file("/proc/self/task/" + std::to_string(number) + "/comm");
  CAWString name;
  if (std::getline(file, name)) text += " (" + name + ")";
  return text;
}

void TraceWrongThread(const char* what, std::uint64_t owner, std::uint64_t caller) {
  char line[512];
  CAWTextFormator text(line, sizeof line);
  text << what << " belongs to " << DescribeThread(owner) << " and was used from "
       << DescribeThread(caller);
  IAWTraceManager::Instance()->Trace(0, text.View());
}

void StopForWrongThread(const char* what, std::uint64_t owner, std::uint64_t caller) {
  TraceWrongThread(what, owner, caller);
  std::abort();
}

}  // namespace keelbase::internal

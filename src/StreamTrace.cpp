// StreamTrace.cpp - see StreamTrace.h. Operators search for these texts: keep them as they are.
#include "StreamTrace.h"

#include "keelbase/CAWTrace.h"

namespace zarn::utils {

namespace {

constexpr std::size_t kLineSize = 2048;
constexpr unsigned kErrorLevel = 0;

}  // namespace

void TraceTooLongAnswer(const char* operation, std::size_t answered, std::size_t offered,
                        const void* stream) {
  char buffer[kLineSize];
  keelbase::CAWTextFormator line(buffer, sizeof buffer);
  line << operation << " handlemessage return size=" << answered << ">remainsize=" << offered
       << " this=" << stream;
  keelbase::IAWTraceManager::Instance()->Trace(kErrorLevel, line.View());
}

void TraceMalformedFrame(const char* channel, const Frame& frame) {
  char buffer[kLineSize];
  keelbase::CAWTextFormator line(buffer, sizeof buffer);
  line << channel << "::HandleMessage, pdulen=" << unsigned{frame.pdulen} << ", datasize"
       << frame.datasize << " fatal error";
  keelbase::IAWTraceManager::Instance()->Trace(kErrorLevel, line.View());
}

}  // namespace zarn::utils

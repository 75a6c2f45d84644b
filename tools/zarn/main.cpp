// main.cpp - the program zarn, with which an operator looks at and talks to the endpoints of a
// machine.
#include <fcntl.h>
#include <unistd.h>

#include <new>
#include <system_error>

#include "CommandLine.h"
#include "Output.h"

namespace {

// What is opened first would get the number of a standard stream that is closed: a store or a
// connection would then be given what is printed. The stream stays one that cannot be used.
bool KeepStandardStreams() {
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    const int wrongWay = stream == STDIN_FILENO ? O_WRONLY : O_RDONLY;
    if (::fcntl(stream, F_GETFD) < 0 && ::open("/dev/null", wrongWay) != stream) return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) try {
  return KeepStandardStreams() ? zarn::tool::RunCommandLine(argc, argv) : zarn::tool::kFailed;
} catch (const std::bad_alloc&) {
  zarn::tool::ComplainLine("out of memory");
  return zarn::tool::kFailed;
} catch (const std::system_error& error) {
  zarn::tool::Complain("out of threads or other resources: {}", error.what());
  return zarn::tool::kFailed;
}

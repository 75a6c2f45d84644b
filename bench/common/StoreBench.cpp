// StoreBench.cpp - see StoreBench.h.
#include "StoreBench.h"

#include <stdlib.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace bench {

int MainOfStore(int argc, char** argv, StoreContestant ours, StoreContestant other) {
  const std::string name = argc > 2 ? argv[1] : "";
  const bool known = name == ours.name || name == other.name;
  const bool timed = argc == 5 && std::string(argv[3]) == "--seconds";
  if (!known || (argc != 3 && !timed))
    Fail(std::string("usage: PROGRAM ") + ours.name + "|" + other.name +
         " OPERATION [--seconds S]");
  StoreOptions options;
  options.operation = argv[2];
  if (timed) options.seconds = std::strtod(argv[4], nullptr);

  namespace fs = std::filesystem;
  const fs::path memory = "/dev/shm";
  const fs::path parent = fs::is_directory(memory) ? memory : fs::temp_directory_path();
  std::string directory = parent / "zarnbenchXXXXXX";
  if (::mkdtemp(directory.data()) == nullptr) FailErrno("temporary directory");
  const StoreContestant& contestant = name == ours.name ? ours : other;
  const double ns = contestant.measure(options, directory + "/store");
  std::error_code ignored;
  fs::remove_all(directory, ignored);
  std::printf("{\"contestant\": \"%s\", \"operation\": \"%s\", \"ns\": %.2f}\n", contestant.name,
              options.operation.c_str(), ns);
  return 0;
}

}  // namespace bench

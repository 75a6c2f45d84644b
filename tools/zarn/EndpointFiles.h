// EndpointFiles.h - the endpoint files of an install root and the processes that serve them.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>
#include <sys/un.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zarn::tool {

enum class EndpointState {
  listening,
  stale,    // a socket file that nobody serves any more
  unknown,  // we are not allowed to ask
  foreign,  // not a socket, or not named like an endpoint
  removed,
};
const char* ToText(EndpointState state);

struct EndpointFile {
  std::string name;
  std::string scheme;  // of its url
  std::string path;
  EndpointState state = EndpointState::unknown;
  struct stat status {};
  pid_t process = 0;  // of whoever listens; 0: unknown
};

// A process number as a file of metrics bears it: decimal, without leading zeros.
std::optional<pid_t> ParseProcess(std::string_view text);

// All that is in the directory of that scheme (see GetEndpointDirectory), sorted by number, without
// disturbing whoever listens. Fails with an errno value; a directory that does not exist holds
// nothing.
int ScanEndpoints(const std::string& scheme, std::vector<EndpointFile>& files);

// Removes the stale ones that belong to our own user and marks them. Asks again with the directory
// locked, as everybody does who makes or removes an endpoint. Fails with an errno value.
int RemoveStale(const std::string& scheme, std::vector<EndpointFile>& files);

bool IsSocketFile(const std::string& path);

// The address of a socket file in an open directory, whose path may be of any length. False when
// the name is too long.
bool NameInDirectory(int directory, const std::string& name, sockaddr_un& out);

std::string GetUserName(uid_t user);        // its number when it has none
std::string GetProgramName(pid_t process);  // empty when it cannot be seen

pid_t FindOwner(const std::string& path);  // who listens at that endpoint file; 0: unknown
// "process 12 (zarn)", escaped, for a message about the endpoint file.
std::string DescribeOwner(const std::string& path);

}  // namespace zarn::tool

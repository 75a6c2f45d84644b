// SocketOwners.cpp - see SocketOwners.h.
#include "SocketOwners.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <sys/socket.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <unordered_map>

#include "Descriptor.h"

namespace zarn::tool {

namespace {

constexpr std::uint32_t kStateListen = 10;  // TCP_LISTEN, which Unix sockets use as well
constexpr std::uint32_t kDeviceMinorBits = 20;

using Owners = std::unordered_map<std::uint32_t, EndpointFile*>;  // by the number of the socket

struct Request {
  nlmsghdr header;
  unix_diag_req body;
};

bool AskForListeners(int netlink) {
  Request request{};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.body.sdiag_family = AF_UNIX;
  request.body.udiag_states = 1U << kStateListen;
  request.body.udiag_show = UDIAG_SHOW_VFS;
  return ::send(netlink, &request, sizeof request, 0) == static_cast<ssize_t>(sizeof request);
}

// The path that a socket was bound with may be relative or lead over a link, so the file itself
// counts.
bool IsFile(const EndpointFile& file, const unix_diag_vfs& vfs) {
  return file.state == EndpointState::listening &&
         static_cast<std::uint32_t>(file.status.st_ino) == vfs.udiag_vfs_ino &&
         major(file.status.st_dev) == vfs.udiag_vfs_dev >> kDeviceMinorBits &&
         minor(file.status.st_dev) == (vfs.udiag_vfs_dev & ((1U << kDeviceMinorBits) - 1));
}

void AddSocket(const nlmsghdr& message, std::vector<EndpointFile>& files, Owners& owners) {
  const auto* socket = static_cast<const unix_diag_msg*>(NLMSG_DATA(&message));
  auto left = static_cast<int>(message.nlmsg_len) - static_cast<int>(NLMSG_LENGTH(sizeof *socket));
  for (const auto* attribute = reinterpret_cast<const rtattr*>(socket + 1); RTA_OK(attribute, left);
       attribute = RTA_NEXT(attribute, left)) {
    if (attribute->rta_type != UNIX_DIAG_VFS) continue;
    unix_diag_vfs vfs{};
    std::memcpy(&vfs, RTA_DATA(attribute), sizeof vfs);
    for (EndpointFile& file : files)
      if (IsFile(file, vfs)) owners.emplace(socket->udiag_ino, &file);
  }
}

// False when the answer is complete, or cannot be read.
bool ReadPart(int netlink, std::vector<EndpointFile>& files, Owners& owners) {
  alignas(nlmsghdr) std::array<char, 32768> buffer;
  const ssize_t count = ::recv(netlink, buffer.data(), buffer.size(), 0);
  if (count <= 0) return false;
  auto left = static_cast<std::uint32_t>(count);
  for (const auto* message = reinterpret_cast<const nlmsghdr*>(buffer.data());
       NLMSG_OK(message, left); message = NLMSG_NEXT(message, left)) {
    if (message->nlmsg_type != SOCK_DIAG_BY_FAMILY) return false;
    AddSocket(*message, files, owners);
  }
  return true;
}

Owners FindSockets(std::vector<EndpointFile>& files) {
  Owners owners;
  const Descriptor netlink(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
  bool more = netlink && AskForListeners(netlink.Get());
  while (more) more = ReadPart(netlink.Get(), files, owners);
  return owners;
}

// The number in "socket:[123]"; 0 for anything else.
std::uint32_t SocketNumber(const std::string& link) {
  constexpr std::string_view kPrefix = "socket:[";
  std::uint32_t number = 0;
  if (link.compare(0, kPrefix.size(), kPrefix) == 0)
    std::from_chars(link.data() + kPrefix.size(), link.data() + link.size(), number);
  return number;
}

// Of several processes that share a socket the lowest number counts, as a rule the parent's.
void LookAtProcess(pid_t process, const Owners& owners) {
  std::error_code error;
  const std::string path = "/proc/" + std::to_string(process) + "/fd";
  for (std::filesystem::directory_iterator at(path, error), end; !error && at != end;
       at.increment(error)) {
    std::error_code unreadable;
    const auto found =
        owners.find(SocketNumber(std::filesystem::read_symlink(at->path(), unreadable).string()));
    if (found == owners.end()) continue;
    pid_t& owner = found->second->process;
    if (owner == 0 || process < owner) owner = process;
  }
}

}  // namespace

void FindOwners(std::vector<EndpointFile>& files) {
  const Owners owners = FindSockets(files);
  if (owners.empty()) return;
  std::error_code error;
  for (std::filesystem::directory_iterator at("/proc", error), end; !error && at != end;
       at.increment(error)) {
    const std::string name = at->path().filename().string();
    pid_t process = 0;
    std::from_chars(name.data(), name.data() + name.size(), process);
    if (process > 0) LookAtProcess(process, owners);
  }
}

}  // namespace zarn::tool

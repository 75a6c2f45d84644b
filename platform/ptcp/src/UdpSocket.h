// UdpSocket.h - a UDP socket with what the system has to make it fast.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <span>

#include "PacketKey.h"
#include "keelbase/CAWInetAddr.h"
#include "keelbase/internal/FileDescriptor.h"

namespace ptcp {

// Where a connection's packets go: the peer, and which of our addresses it knows us by (0.0.0.0:
// the system may choose).
struct Path {
  keelbase::CAWInetAddr peer;
  in_addr local{};
};

// Never blocks. Several datagrams of one peer go and come in one system call (UDP_SEGMENT,
// UDP_GRO).
class UdpSocket {
 public:
  // One or more datagrams, each but the last `segment` long; 0: one.
  struct Received {
    Path from;
    Bytes data;
    std::size_t segment = 0;
  };
  // What a router or the peer's system says of an earlier datagram.
  struct NetworkError {
    int error = 0;
    keelbase::CAWInetAddr peer;
    Bytes quoted;  // the beginning of that datagram, as far as it came back
  };

  // Bound to `local` when that is not null; takes datagrams from `peer` only when that is not null.
  // 0 or an errno value.
  int Open(const keelbase::CAWInetAddr* local, const keelbase::CAWInetAddr* peer);
  void Close() { socket_.Reset(); }
  int Get() const { return socket_.Get(); }
  bool IsOpen() const { return static_cast<bool>(socket_); }
  const keelbase::CAWInetAddr& GetLocalAddr() const { return local_; }

  // 0 or an errno value; EAGAIN: there is nothing more. The data is in `room`.
  int Read(std::span<char> room, Received& received) const;
  int ReadError(std::span<char> room, NetworkError& error) const;

  // `segment` as in Received. 0 or an errno value.
  int Write(const Path& to, Bytes data, std::size_t segment);
  // The longest datagram that the loopback device takes; 0: not known.
  std::size_t LongestOnLoopback() const;
  std::uint64_t Writes() const { return writes_; }  // system calls

 private:
  int SetUp(const keelbase::CAWInetAddr* local, const keelbase::CAWInetAddr* peer);

  keelbase::internal::FileDescriptor socket_;
  keelbase::CAWInetAddr local_;
  bool connected_ = false;
  keelbase::CAWInetAddr peer_;
  std::uint64_t writes_ = 0;
};

}  // namespace ptcp

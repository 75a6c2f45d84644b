// CAWSocketUdp.h - a UDP socket.
#pragma once

#include "keelbase/CAWDefines.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWInetAddr.h"

namespace keelbase {

// Owns the descriptor of an IPv4 datagram socket: blocking, closed on exec. Reading and writing are
// done with the descriptor. One thread at a time.
class KEELBASE_API CAWSocketUdp {
 public:
  CAWSocketUdp() = default;
  ~CAWSocketUdp() { Close(); }
  CAWSocketUdp(const CAWSocketUdp&) = delete;
  CAWSocketUdp& operator=(const CAWSocketUdp&) = delete;

  // Binds to `local`; port 0 takes a free one. 0, or an errno value (EADDRINUSE, EMFILE …). 10001
  // when it is open already (it stays so).
  AWResult Open(const CAWInetAddr& local);

  // The descriptor, still ours; -1 when closed.
  int GetHandle() const { return handle_; }

  // 0; 10002 when closed; else an errno value. `out` changes only on success.
  AWResult GetLocalAddr(CAWInetAddr& out) const;

  AWResult Close();  // 0; also when it is closed already

 private:
  int handle_ = -1;
};

}  // namespace keelbase

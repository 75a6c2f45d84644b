// TlsWriter.h - the sending half of a TlsStream: plain bytes become records, which go below.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "keelbase/CAWMessageBlock.h"
#include "keelbase/CAWTransport.h"
#include "sslutils/internal/ByteTransport.h"
#include "sslutils/internal/OwnedChain.h"

struct ssl_st;

namespace sslutils::internal {

inline constexpr std::size_t kRecordSize = 16 * 1024;  // plain bytes of one at most

// OpenSSL gives its records straight to the transport below, so that nothing is kept here but a
// record that is being filled, one that cannot be encrypted yet, and what found no room below. Each
// operation may find that nothing can be sent any more: see GetError.
class TlsWriter {
 public:
  TlsWriter(ssl_st* ssl, ByteTransport& lower, keelbase::CAWTransportCounters& counters)
      : ssl_(ssl), lower_(lower), counters_(counters) {}

  // Takes bytes from the front up to the end of a record; 0 when it can take none now.
  std::size_t Take(keelbase::CAWMessageBlock& block);
  // Encrypts what was gathered. False when a record is waiting before it.
  bool Flush();
  // Bytes of the peer were read, or there was room below: what waited for that.
  void WritePending();
  bool WriteRest();  // false when it failed
  // Our end of the connection, once nothing waits before it.
  void WriteEnd();

  // OpenSSL's side: a record, or a piece of one. `keep`: nothing can go below for now.
  void WriteBelow(const char* data, std::size_t length, bool keep);

  // Nobody will tell of room any more: nothing waits for it.
  void ExpectNoRoom() { expectsRoom_ = false; }
  // The transport below lingers with what is encrypted; the rest is dropped.
  void LeaveToLower();

  bool IsBlocked() const { return pending_ != nullptr || (!rest_.IsEmpty() && expectsRoom_); }
  bool WaitsForPeer() const { return waitsForPeer_; }  // to go on it must read
  bool HasEnded() const { return ended_; }
  // A peer can ask for new keys again and again, and read none of the answers: nothing more should
  // be read now.
  bool IsFull() const;
  std::size_t Gathered() const { return gather_ == nullptr ? 0 : gather_->GetLength(); }
  std::uint64_t Queued() const;  // also below

  // Why nothing can be sent any more; 0 while it can.
  long GetError() const { return error_; }
  // There is such a reason, and the transport below does not know.
  bool HasFailed() const { return failed_; }

 private:
  bool MakeGather();
  void WriteRecord(const char* data, std::size_t length);
  void KeepPending(const char* data, std::size_t length);
  bool SendBelow(keelbase::CAWMessageBlock& chain);
  void Fail(long reason);
  void NoteQueued();

  ssl_st* const ssl_;
  ByteTransport& lower_;
  keelbase::CAWTransportCounters& counters_;

  std::unique_ptr<keelbase::CAWMessageBlock> gather_;   // a record that is being filled
  std::unique_ptr<keelbase::CAWMessageBlock> pending_;  // one that OpenSSL has not taken yet
  OwnedChain rest_;                                     // encrypted; found no room below
  bool waitsForPeer_ = false;
  bool expectsRoom_ = true;
  bool ended_ = false;
  bool failed_ = false;
  long error_ = 0;
};

}  // namespace sslutils::internal

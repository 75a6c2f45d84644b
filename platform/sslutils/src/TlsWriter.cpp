// TlsWriter.cpp - see TlsWriter.h.
#include "sslutils/internal/TlsWriter.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include "TlsReason.h"

namespace sslutils::internal {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWMessageBlock;

namespace {

static_assert(kRecordSize == SSL3_RT_MAX_PLAIN_LENGTH);

// While so many encrypted bytes wait for room below, the writer is full.
constexpr std::size_t kMaxRest = 2 * kRecordSize;

}  // namespace

// --- plain bytes ---

// Records that fill up from the caller's own bytes are encrypted where those lie.
std::size_t TlsWriter::Take(CAWMessageBlock& block) {
  std::size_t count = block.GetLength();
  if (Gathered() == 0 && count >= kRecordSize) {
    if (IsBlocked() || error_ != 0) return 0;
    WriteRecord(block.GetReadPtr(), kRecordSize);
    if (error_ != 0) return 0;
    block.AdvanceReadPtr(kRecordSize);
    return kRecordSize;
  }
  if (Gathered() == kRecordSize && !Flush()) return 0;
  if (!MakeGather()) return 0;
  count = std::min(count, gather_->GetSpace());
  gather_->Write(block.GetReadPtr(), count);
  block.AdvanceReadPtr(count);
  if (Gathered() == kRecordSize) Flush();
  return count;
}

bool TlsWriter::MakeGather() {
  if (gather_ != nullptr) return true;
  try {
    gather_ = std::make_unique<CAWMessageBlock>(kRecordSize);
    return true;
  } catch (const std::bad_alloc&) {
    Fail(ENOMEM);
    return false;
  }
}

bool TlsWriter::Flush() {
  if (IsBlocked() || error_ != 0) return false;
  if (Gathered() == 0) return true;
  const auto record = std::move(gather_);
  WriteRecord(record->GetReadPtr(), record->GetLength());
  return true;
}

void TlsWriter::WriteRecord(const char* data, std::size_t length) {
  std::size_t count = 0;
  ERR_clear_error();
  const int result = SSL_write_ex(ssl_, data, length, &count);
  const int error = SSL_get_error(ssl_, result);
  waitsForPeer_ = error == SSL_ERROR_WANT_READ;
  switch (error) {
    case SSL_ERROR_NONE:
      ++counters_.systemCallsSent;
      return;
    case SSL_ERROR_WANT_READ:
      return KeepPending(data, length);
    default:
      return Fail(ReasonOfRecordFailure());
  }
}

void TlsWriter::KeepPending(const char* data, std::size_t length) {
  try {
    pending_ = std::make_unique<CAWMessageBlock>(length);
    pending_->Write(data, length);
    NoteQueued();
  } catch (const std::bad_alloc&) {
    Fail(ENOMEM);
  }
}

void TlsWriter::WritePending() {
  if (pending_ == nullptr || error_ != 0) return;
  const auto record = std::move(pending_);
  WriteRecord(record->GetReadPtr(), record->GetLength());
}

void TlsWriter::WriteEnd() {
  if (Gathered() != 0 || pending_ != nullptr || error_ != 0 || ended_) return;
  ERR_clear_error();
  ended_ = SSL_shutdown(ssl_) >= 0;
}

// --- records ---

// Never refuses a record: OpenSSL would want to write the same one again, and would end the
// connection if the peer asked for new keys in between. What comes after a failure is dropped: the
// peer must see that bytes are missing, but OpenSSL reads on only as long as its answers are taken.
// After our end its answers to a peer that goes on are dropped too.
void TlsWriter::WriteBelow(const char* data, std::size_t length, bool keep) {
  if (error_ != 0 || ended_) return;
  CAWMessageBlock block(data, length, CAWMessageBlock::borrow);
  if (rest_.IsEmpty() && !keep && !SendBelow(block)) return;
  if (block.GetLength() == 0) return;
  try {
    rest_.AddBytes(block, kRecordSize);
    NoteQueued();
  } catch (const std::bad_alloc&) {
    Fail(ENOMEM);
  }
}

bool TlsWriter::SendBelow(CAWMessageBlock& chain) {
  const AWResult result = lower_.Send(chain);
  if (result == AW_OK || result == AW_ERROR_PARTIAL_DATA) return true;
  // AW_ERROR_FAILURE is a lack of memory, of which only this call tells. Any other error is the end
  // of the transport below, which tells that itself.
  if (result == AW_ERROR_FAILURE) {
    Fail(static_cast<long>(result));
  } else if (error_ == 0) {
    error_ = static_cast<long>(result);
  }
  return false;
}

bool TlsWriter::WriteRest() {
  if (rest_.IsEmpty()) return true;
  const bool well = SendBelow(*rest_.GetFirst());
  rest_.DropRead(rest_.GetLength() - rest_.GetFirst()->GetChainedLength());
  return well;
}

void TlsWriter::Fail(long reason) {
  if (error_ == 0) error_ = reason;
  failed_ = true;
}

void TlsWriter::LeaveToLower() {
  if (!rest_.IsEmpty()) lower_.SetOption(keelbase::AW_OPT_LINGER_DATA, rest_.GetFirst());
  rest_.Clear();
  gather_.reset();
  pending_.reset();
}

// --- how much waits ---

bool TlsWriter::IsFull() const {
  const bool willGoOut = !ended_ && error_ == 0;
  return willGoOut && rest_.GetLength() >= kMaxRest;
}

std::uint64_t TlsWriter::Queued() const {
  keelbase::CAWTransportCounters lower;
  lower_.GetOption(keelbase::AW_OPT_COUNTERS, &lower);
  const std::uint64_t pending = pending_ == nullptr ? 0 : pending_->GetLength();
  return Gathered() + pending + rest_.GetLength() + lower.queuedBytes;
}

// Called where much may have come together: asking below costs too much for each message.
void TlsWriter::NoteQueued() {
  counters_.queuedHighMark = std::max(counters_.queuedHighMark, Queued());
}

}  // namespace sslutils::internal

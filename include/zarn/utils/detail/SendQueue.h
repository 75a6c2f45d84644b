// SendQueue.h - bytes that a stream has accepted and its transport has not taken yet.
#pragma once

#include <cstddef>
#include <memory>

#include "keelbase/CAWError.h"
#include "keelbase/CAWMessageBlock.h"
#include "keelbase/CAWTransport.h"
#include "zarn/utils/zarndefines.h"

namespace zarn::utils::detail {

// Small messages are gathered in blocks of 64 KiB, larger ones share the sender's bytes. Appending
// costs the same however long the queue is.
class ZARNUTILS_API SendQueue {
 public:
  SendQueue() = default;
  SendQueue(const SendQueue&) = delete;
  SendQueue& operator=(const SendQueue&) = delete;

  bool IsEmpty() const { return head_ == nullptr; }
  std::size_t GetLength() const { return length_; }
  keelbase::CAWMessageBlock* GetBlock() { return head_.get(); }  // null when it is empty

  // Adds the chain's unread bytes, which are not advanced, and may be the queue's own; what is
  // borrowed is copied. 0; 10001 without memory (nothing added).
  keelbase::AWResult Append(const keelbase::CAWMessageBlock& data);

  // Offers everything to `send(block)`, a transport's SendData, and drops what it takes: piece by
  // piece, as long as each is taken, so that the cost does not grow with the queue. Returns the
  // last result. Not for an empty queue.
  template <class Send>
  keelbase::AWResult Offer(Send send) {
    for (;;) {
      const keelbase::AWResult result = OfferPiece(send);
      if (result != keelbase::AW_OK || IsEmpty() || pieceEnd_ != nullptr) return result;
    }
  }

  // Sends a message behind all that waits already, and keeps what is not taken. 0: sent or kept,
  // and the caller advances over it. 10013: part was taken, and there is no memory to keep the
  // rest. Else an error of the transport, or 10001 without memory, and nothing was taken; a message
  // behind others is kept even when the transport refuses the offer.
  template <class Send>
  keelbase::AWResult SendInOrder(keelbase::CAWMessageBlock& data, Send send) {
    const bool waits = !IsEmpty();
    if (waits && Append(data) != keelbase::AW_OK) return keelbase::AW_ERROR_FAILURE;
    const keelbase::AWResult result = waits ? Offer(send) : send(data);
    if (result == keelbase::AW_OK && waits) Clear();
    if (result != keelbase::AW_ERROR_PARTIAL_DATA) return result;
    return waits || Append(data) == keelbase::AW_OK ? keelbase::AW_OK : result;
  }

  // Lets the transport write everything when it is disconnected.
  template <class Transport>
  void LeaveTo(Transport& transport) {
    if (!IsEmpty()) transport.SetOption(keelbase::AW_OPT_LINGER_DATA, head_.get());
  }

  void Clear();

 private:
  // `send` must not throw: the rest of the queue is apart meanwhile.
  template <class Send>
  keelbase::AWResult OfferPiece(Send& send) {
    const std::size_t first = head_->GetLength();
    keelbase::CAWMessageBlock* rest = CutPiece();
    const keelbase::AWResult result = send(*head_);
    pieceEnd_->Append(rest);
    if (head_->GetLength() != first) DropSent();
    return result;
  }

  void Copy(const keelbase::CAWMessageBlock& data, std::size_t length);
  void Link(std::unique_ptr<keelbase::CAWMessageBlock> chain);
  keelbase::CAWMessageBlock* CutPiece();
  void DropSent();

  std::unique_ptr<keelbase::CAWMessageBlock> head_;  // owns the chain; no block of it is fully read
  keelbase::CAWMessageBlock* tail_ = nullptr;
  std::size_t length_ = 0;
  keelbase::CAWMessageBlock* pieceEnd_ = nullptr;  // the last block that is offered at once
  std::size_t pieceLength_ = 0;
};

}  // namespace zarn::utils::detail

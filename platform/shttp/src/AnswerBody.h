// AnswerBody.h - the body of an answer while it comes: a chain of blocks, bounded.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <memory>
#include <string_view>
#include <utility>

#include "keelbase/CAWMessageBlock.h"

namespace shttp {

class AnswerBody {
 public:
  explicit AnswerBody(std::size_t limit) : left_(limit) {}

  std::size_t GetLeft() const { return left_; }  // bytes up to the limit

  // 0, or EMSGSIZE beyond the limit. May throw std::bad_alloc.
  int Append(std::string_view bytes) {
    if (bytes.size() > left_) return EMSGSIZE;
    while (!bytes.empty()) {
      const auto [room, space] = GetRoom();
      const std::size_t count = std::min(space, bytes.size());
      std::copy_n(bytes.data(), count, room);
      Commit(count);
      bytes.remove_prefix(count);
    }
    return 0;
  }

  // Where the next bytes go, and how many fit: at least one. Commit says how many were put there.
  std::pair<char*, std::size_t> GetRoom() {
    if (tail_ == nullptr || tail_->GetSpace() == 0) {
      auto block = std::make_unique<keelbase::CAWMessageBlock>(nextBlock_);
      nextBlock_ = std::min(2 * nextBlock_, kMaxBlock);
      keelbase::CAWMessageBlock* const next = block.get();
      if (tail_ == nullptr) {
        head_ = std::move(block);
      } else {
        tail_->Append(block.release());
      }
      tail_ = next;
    }
    return {tail_->GetWritePtr(), tail_->GetSpace()};
  }
  void Commit(std::size_t count) {
    tail_->AdvanceWritePtr(count);
    left_ -= std::min(count, left_);
  }

  // What has come; null for nothing. The body is of no use afterwards.
  std::unique_ptr<keelbase::CAWMessageBlock> Take() { return std::move(head_); }

 private:
  // The largest come from no pool, which would keep them.
  static constexpr std::size_t kMinBlock = std::size_t{16} << 10;
  static constexpr std::size_t kMaxBlock = std::size_t{256} << 10;

  std::size_t nextBlock_ = kMinBlock;
  std::unique_ptr<keelbase::CAWMessageBlock> head_;
  keelbase::CAWMessageBlock* tail_ = nullptr;
  std::size_t left_;
};

}  // namespace shttp

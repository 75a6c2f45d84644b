// MessageBlockModel.h - carries out operations on chains of blocks and on plain byte strings alike.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "keelbase/CAWMessageBlock.h"

namespace zarn::test {

// The bytes of `script` choose the operations; any difference between the blocks and the model
// throws std::logic_error. Several chains exist at a time, and duplicates share bytes between them.
class MessageBlockModel {
 public:
  MessageBlockModel(const std::uint8_t* script, std::size_t size)
      : script_(script, script + size) {}
  ~MessageBlockModel() {
    for (Chain& chain : chains_) delete chain.head;
  }
  MessageBlockModel(const MessageBlockModel&) = delete;
  MessageBlockModel& operator=(const MessageBlockModel&) = delete;

  void Run() {
    while (at_ < script_.size()) {
      Step();
      for (const Chain& chain : chains_) Compare(chain);
    }
  }

 private:
  using Block = keelbase::CAWMessageBlock;
  static constexpr std::size_t kMaxChains = 8;
  static constexpr std::size_t kMaxBytes = 4096;

  // What a block must be like; its bytes stand behind each other in `text`.
  struct Chain {
    Block* head;
    std::vector<std::string> blocks;
  };

  static void Check(bool condition, const char* what) {
    if (!condition) throw std::logic_error(what);
  }

  std::size_t Next() { return at_ < script_.size() ? script_[at_++] : 0; }
  std::string NextText() {
    std::string text(Next() % 97, '\0');
    for (char& letter : text) letter = static_cast<char>('a' + counter_++ % 26);
    return text;
  }
  Chain& Pick() { return chains_[Next() % chains_.size()]; }

  static std::string Flat(const Chain& chain) {
    std::string all;
    for (const std::string& block : chain.blocks) all += block;
    return all;
  }

  void Step() {
    const std::size_t operation = Next() % 16;
    if (chains_.empty() || operation == 0) return Make();
    if (operation == 1) return Borrow();
    Chain& chain = Pick();
    switch (operation) {
      case 2:
        return Write(chain);
      case 3:
        return WriteInPlace(chain);
      case 4:
        return AdvanceOne(chain);
      case 5:
        return AdvanceAll(chain);
      case 6:
        return Append(chain);
      case 7:
        return Duplicate(chain);
      case 8:
        return Cut(chain);
      case 9:
        return Reclaim(chain);
      case 10:
        return Prepend(chain);
      case 11:
        return Destroy(chain);
      case 12:
        return Reset(chain);
      case 13:
        return Copy(chain);
      case 14:
        return WriteLast(chain);
      default:
        return Beyond(chain);
    }
  }

  void Add(Block* head, std::vector<std::string> blocks) {
    if (chains_.size() == kMaxChains) Destroy(chains_.front());
    chains_.push_back({head, std::move(blocks)});
  }
  void Make() {
    const std::size_t capacity = Next() * 3;
    Add(new Block(capacity, Next() % 40), {""});
  }
  void Borrow() {
    borrowed_.push_back(std::make_unique<std::string>(NextText()));
    const std::string& text = *borrowed_.back();
    Add(new Block(text.data(), text.size(), Block::borrow), {text});
  }
  void WriteTo(Block& block, std::string& model) {
    const std::string text = NextText();
    const bool fits = text.size() <= block.GetSpace();
    Check((block.Write(text.data(), text.size()) == keelbase::AW_OK) == fits, "Write answers");
    if (fits) model += text;
  }
  void Write(Chain& chain) { WriteTo(*chain.head, chain.blocks.front()); }
  void WriteLast(Chain& chain) {
    Block* last = chain.head;
    while (last->GetNext() != nullptr) last = last->GetNext();
    WriteTo(*last, chain.blocks.back());
  }
  void WriteInPlace(Chain& chain) {
    char* to = chain.head->GetWritePtr();
    if (chain.head->IsBorrowed()) return Check(to == nullptr, "borrowed bytes are not written");
    std::string text = NextText();
    text.resize(std::min(text.size(), chain.head->GetSpace()));
    std::copy(text.begin(), text.end(), to);
    Check(chain.head->AdvanceWritePtr(text.size()) == keelbase::AW_OK, "AdvanceWritePtr answers");
    chain.blocks.front() += text;
  }
  void AdvanceOne(Chain& chain) {
    const std::size_t count = Next();
    std::string& model = chain.blocks.front();
    const bool there = count <= model.size();
    Check((chain.head->AdvanceReadPtr(count) == keelbase::AW_OK) == there,
          "AdvanceReadPtr answers");
    if (there) model.erase(0, count);
  }
  void AdvanceAll(Chain& chain) {
    std::size_t count = Next() * 2;
    const bool there = count <= Flat(chain).size();
    Check((chain.head->AdvanceChainedReadPtr(count) == keelbase::AW_OK) == there,
          "AdvanceChainedReadPtr answers");
    for (std::size_t i = 0; there && count > 0; ++i) {
      const std::size_t step = std::min(count, chain.blocks[i].size());
      chain.blocks[i].erase(0, step);
      count -= step;
    }
  }
  void Append(Chain& chain) {
    const std::size_t other = Next() % chains_.size();
    Chain& tail = chains_[other];
    if (&tail == &chain || Flat(chain).size() + Flat(tail).size() > kMaxBytes) return;
    chain.head->Append(tail.head);
    chain.blocks.insert(chain.blocks.end(), tail.blocks.begin(), tail.blocks.end());
    chains_.erase(chains_.begin() + static_cast<std::ptrdiff_t>(other));
  }
  static std::vector<std::string> WithoutEmpty(const std::vector<std::string>& blocks) {
    std::vector<std::string> filled;
    for (const std::string& block : blocks) {
      if (!block.empty()) filled.push_back(block);
    }
    return filled;
  }
  void Duplicate(Chain& chain) {
    std::vector<std::string> blocks = WithoutEmpty(chain.blocks);
    if (blocks.empty()) blocks.emplace_back();
    Add(chain.head->DuplicateChained(), std::move(blocks));
  }
  void Cut(Chain& chain) {
    const std::size_t length = Next() * 2;
    Block* rest = chain.head->Disjoint(length);
    const std::string all = Flat(chain);
    if (length >= all.size()) {
      Check(rest == nullptr, "nothing is left behind a cut at the end");
      if (length > all.size()) return;
    } else {
      Check(rest != nullptr && rest->FlattenChained() == all.substr(length), "the rest of a cut");
    }
    Check(chain.head->FlattenChained() == all.substr(0, length), "the front of a cut");
    Observe(chain);
    if (rest == nullptr) return;
    Chain cut{rest, {}};
    Observe(cut);
    Add(cut.head, std::move(cut.blocks));
  }
  // Where a cut leaves empty blocks is its own business: take the boundaries over.
  static void Observe(Chain& chain) {
    chain.blocks.clear();
    for (const Block* block = chain.head; block != nullptr; block = block->GetNext())
      chain.blocks.emplace_back(block->GetReadPtr(), block->GetLength());
  }
  void Reclaim(Chain& chain) {
    chain.head = chain.head->ReclaimGarbage();
    auto filled = std::find_if(chain.blocks.begin(), chain.blocks.end(),
                               [](const std::string& block) { return !block.empty(); });
    chain.blocks.erase(chain.blocks.begin(), filled);
    Check((chain.head == nullptr) == chain.blocks.empty(), "ReclaimGarbage keeps what is unread");
    if (chain.head == nullptr) Forget(chain);
  }
  void Prepend(Chain& chain) {
    const std::string text = NextText();
    if (chain.head->Prepend(text.data(), text.size()) == keelbase::AW_OK)
      chain.blocks.front().insert(0, text);
    else
      Check(chain.head->GetLength() == chain.blocks.front().size(), "a refused Prepend is nothing");
  }
  void Destroy(Chain& chain) {
    chain.head->DestroyChained();
    Forget(chain);
  }
  void Forget(Chain& chain) { chains_.erase(chains_.begin() + (&chain - chains_.data())); }
  void Reset(Chain& chain) {
    const bool may = !chain.head->IsBorrowed() && !chain.head->IsShared();
    Check((chain.head->Reset() == keelbase::AW_OK) == may, "Reset answers");
    if (may) chain.blocks.front().clear();
  }
  void Copy(Chain& chain) {
    std::string out(Next() * 2, '?');
    const std::string all = Flat(chain);
    const std::size_t copied = chain.head->CopyChained(out.data(), out.size());
    Check(copied == std::min(out.size(), all.size()), "CopyChained counts");
    Check(out.substr(0, copied) == all.substr(0, copied), "CopyChained copies");
  }
  void Beyond(Chain& chain) {
    constexpr std::size_t kHuge = ~std::size_t{0};
    Check(chain.head->AdvanceReadPtr(kHuge) != keelbase::AW_OK, "AdvanceReadPtr is bounded");
    Check(chain.head->AdvanceWritePtr(kHuge) != keelbase::AW_OK, "AdvanceWritePtr is bounded");
    Check(chain.head->AdvanceChainedReadPtr(kHuge) != keelbase::AW_OK, "the chain is bounded");
    Check(chain.head->Write("", kHuge) != keelbase::AW_OK, "Write is bounded");
    Check(chain.head->Prepend("", kHuge) != keelbase::AW_OK, "Prepend is bounded");
    Check(chain.head->Disjoint(kHuge) == nullptr, "Disjoint is bounded");
  }

  static void Compare(const Chain& chain) {
    const Block* block = chain.head;
    for (const std::string& model : chain.blocks) {
      Check(block != nullptr, "a block is missing");
      Check(std::string(block->GetReadPtr(), block->GetLength()) == model, "bytes differ");
      block = block->GetNext();
    }
    Check(block == nullptr, "a block too many");
    const std::string all = Flat(chain);
    Check(chain.head->GetChainedLength() == all.size(), "the chained length differs");
    Check(chain.head->FlattenChained() == all, "the flattened bytes differ");
  }

  std::vector<std::uint8_t> script_;
  std::size_t at_ = 0;
  std::size_t counter_ = 0;
  std::vector<std::unique_ptr<std::string>> borrowed_;  // outlives the blocks
  std::vector<Chain> chains_;
};

}  // namespace zarn::test

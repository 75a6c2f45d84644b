// Blocks.h - message blocks made of texts.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "keelbase/CAWMessageBlock.h"

namespace zarn::test {

// A chain of owned blocks, one for each text.
inline std::unique_ptr<keelbase::CAWMessageBlock> Chain(const std::vector<std::string>& texts) {
  std::unique_ptr<keelbase::CAWMessageBlock> head;
  for (const auto& text : texts) {
    auto* block = new keelbase::CAWMessageBlock(text.size());
    block->Write(text.data(), text.size());
    if (head)
      head->Append(block);
    else
      head.reset(block);
  }
  return head;
}

}  // namespace zarn::test

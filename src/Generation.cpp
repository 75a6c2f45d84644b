// Generation.cpp - see Generation.h.
#include "zarn/utils/detail/Generation.h"

namespace zarn::utils::detail {

Generation::Watch::Watch(Generation& generation)
    : generation_(&generation), outer_(generation.innermost_) {
  generation.innermost_ = this;
}

Generation::Watch::~Watch() {
  if (generation_ != nullptr) generation_->innermost_ = outer_;
}

Generation::~Generation() {
  for (Watch* watch = innermost_; watch != nullptr; watch = watch->outer_)
    watch->generation_ = nullptr;
}

void Generation::Raise() {
  for (Watch* watch = innermost_; watch != nullptr; watch = watch->outer_) watch->changed_ = true;
}

}  // namespace zarn::utils::detail

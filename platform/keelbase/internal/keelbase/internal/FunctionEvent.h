// FunctionEvent.h - a posted event that calls a function.
#pragma once

#include <functional>
#include <utility>

#include "keelbase/CAWEventQueue.h"

namespace keelbase::internal {

class FunctionEvent final : public IAWEvent {
 public:
  explicit FunctionEvent(std::function<void()> function) : function_(std::move(function)) {}
  AWResult OnEventFire() override {
    function_();
    return AW_OK;
  }

 private:
  std::function<void()> function_;
};

}  // namespace keelbase::internal

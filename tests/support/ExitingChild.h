// ExitingChild.h - a forked child that lets go of what it has from its parent and calls exit().
#pragma once

#include <cstdlib>
#include <functional>

#include "ForkedChild.h"

namespace zarn::test {

// Acts when the process ends, after the clean-up chain, which is younger.
struct AtLast {
  ~AtLast() {
    if (act) act();
  }
  std::function<void()> act;
};
inline AtLast atLast;

// A child calls exit(), in which `act` comes last; true when it has succeeded.
inline bool ExitInChild(const std::function<void()>& act) {
  return ForkedChild([&] {
           atLast.act = act;
           std::exit(0);
           return true;
         })
      .Succeeded();
}

}  // namespace zarn::test

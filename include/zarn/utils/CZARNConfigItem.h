// CZARNConfigItem.h - one configuration key and its value.
#pragma once

#include "keelbase/CAWString.h"
#include "zarn/utils/zarndefines.h"

namespace zarn::utils {

// A value: one thread at a time. Copying lets std::bad_alloc pass.
//
//   const CZARNConfigItem item("log.level", "3");
class ZARNUTILS_API CZARNConfigItem {
 public:
  keelbase::CAWString key;
  keelbase::CAWString value;

  CZARNConfigItem() = default;
  CZARNConfigItem(const keelbase::CAWString& newKey, const keelbase::CAWString& newValue);
};

}  // namespace zarn::utils

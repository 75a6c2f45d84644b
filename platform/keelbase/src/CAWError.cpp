// CAWError.cpp - result codes as text.
#include "keelbase/CAWError.h"

#include <climits>
#include <cstring>

namespace keelbase {

CAWString DescribeResult(long reason) {
  switch (reason) {
    case AW_OK:
      return "Success";
    case AW_ERROR_FAILURE:
      return "Failure";
    case AW_ERROR_NOT_INITIALIZED:
      return "Not initialized";
    case AW_ERROR_NOT_FOUND:
      return "Not found";
    case AW_ERROR_NOT_AVAILABLE:
      return "Not available";
    case AW_ERROR_PARTIAL_DATA:
      return "Partial data";
    default:
      break;
  }
  const char* text =
      reason > 0 && reason <= INT_MAX ? ::strerrordesc_np(static_cast<int>(reason)) : nullptr;
  return text != nullptr ? CAWString(text) : "Code " + std::to_string(reason);
}

}  // namespace keelbase

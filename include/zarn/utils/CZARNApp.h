// CZARNApp.h - an application that a process knows of.
#pragma once

#include "zarn/utils/CZARNAddress.h"
#include "zarn/utils/zarndefines.h"

namespace zarn::utils {

// An address, compared and copied as one (so without `ispublic`), and nothing more. A value: one
// thread at a time.
//
//   CZARNApp app;
//   app.SetNodeId(31);
//   app.jno = 5;
class ZARNUTILS_API CZARNApp : public CZARNAddress {
 public:
  CZARNApp() = default;
  CZARNApp(const CZARNAddress& address);

  bool operator==(const CZARNApp& other) const;
};

}  // namespace zarn::utils

// CZARNApp.cpp - see CZARNApp.h.
#include "zarn/utils/CZARNApp.h"

namespace zarn::utils {

CZARNApp::CZARNApp(const CZARNAddress& address) : CZARNAddress(address) {}

bool CZARNApp::operator==(const CZARNApp& other) const { return CZARNAddress::operator==(other); }

}  // namespace zarn::utils

// CZARNConfigItem.cpp - see CZARNConfigItem.h.
#include "zarn/utils/CZARNConfigItem.h"

namespace zarn::utils {

CZARNConfigItem::CZARNConfigItem(const keelbase::CAWString& newKey,
                                 const keelbase::CAWString& newValue)
    : key(newKey), value(newValue) {}

}  // namespace zarn::utils

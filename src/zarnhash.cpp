// zarnhash.cpp - keys of endpoint addresses.
#include "zarn/utils/zarnutils.h"

namespace zarn::utils {

std::uint32_t GetHashKey(const fshmipc::CAWShmIPCAddr& addr) {
  return MakeJno(addr.GetFirst(), addr.GetSecond());
}

std::uint32_t GetHashKey(const keelbase::CAWIPCAddr& addr) {
  std::uint16_t second = 0;
  std::uint16_t first = 0;
  ZARNFromIPCAddr(second, first, addr);  // both stay 0 for a path that it refuses
  return MakeJno(first, second);
}

}  // namespace zarn::utils

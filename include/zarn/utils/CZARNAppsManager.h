// CZARNAppsManager.h - the applications that a process knows of.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <unordered_map>

#include "keelbase/CAWError.h"
#include "zarn/utils/CZARNApp.h"
#include "zarn/utils/zarndefines.h"

namespace zarn::utils {

// What an application is kept under. Service and thread number are not part of it: one node has one
// application for each job number.
struct ZARNUTILS_API ZARNAppKey {
  std::uint32_t datacenterid = 0;
  std::uint32_t clusterid = 0;
  std::uint32_t nodeid = 0;
  std::uint16_t jno = 0;
  std::uint16_t zero = 0;  // stays so: the key is hashed as 16 raw bytes

  ZARNAppKey() = default;
  explicit ZARNAppKey(const CZARNAddress& address);

  bool operator==(const ZARNAppKey& other) const {
    return datacenterid == other.datacenterid && clusterid == other.clusterid &&
           nodeid == other.nodeid && jno == other.jno;
  }
};

// 32 bits of keelbase::hash_bytes. Not noexcept, so that the table keeps the hash with each entry
// and compares it first.
struct ZARNUTILS_API CZARNAppKeyHashFun {
  std::size_t operator()(const ZARNAppKey& key) const;
};

// A hash table in memory. Takes no lock: its owner serialises all calls. Adding and removing take
// constant time on average.
//
//   CZARNAppsManager apps;
//   apps.AddApp(app);                          // 0; 10001 if the node has one of this job number
//   CZARNApp found;
//   if (apps.GetAppsByJno(5, found) == 0) ...  // the first one of job 5, of whatever node
class ZARNUTILS_API CZARNAppsManager {
 public:
  // 0; 10001 when there is one with the same key, which then stays as it is, or no memory.
  keelbase::AWResult AddApp(const CZARNApp& app);

  // Only data centre, cluster, node and job number of `app` matter. 0; 10001 when there is none.
  keelbase::AWResult RemoveApp(const CZARNApp& app);

  // Assigns the first application of that job number to `out`, in no particular order of nodes. 0;
  // 10001 when there is none. Looks through all of them: the time grows with their number.
  keelbase::AWResult GetAppsByJno(unsigned short jno, CZARNApp& out) const;

  // Appends copies of all to `out`, in no particular order. Lets std::bad_alloc pass, with `out` as
  // it was.
  void GetAppsList(std::list<CZARNApp>& out) const;

 private:
  std::unordered_map<ZARNAppKey, CZARNApp, CZARNAppKeyHashFun> apps_;
};

}  // namespace zarn::utils

// CZARNListenNodeManager.h - the services that have announced that they listen.
#pragma once

#include <cstdint>
#include <functional>
#include <unordered_map>

#include "keelbase/CAWError.h"
#include "zarn/utils/CZARNListenNode.h"
#include "zarn/utils/zarndefines.h"

namespace zarn::utils {

// A hash table in memory. Takes no lock: its owner serialises all calls. Adding, finding and
// removing take constant time on average. A missing entry has a code of its own in each operation.
//
//   CZARNListenNodeManager nodes;
//   nodes.AddListenNotify(item);
//   CZARNListenNodeKey key(item);
//   CZARNListenNodeItem found;
//   if (nodes.FindListenNotify(key, found) == 0) ...  // connect to found.GetListenPrivateIP()
class ZARNUTILS_API CZARNListenNodeManager {
 public:
  using Map =
      std::unordered_map<CZARNListenNodeKey, CZARNListenNodeItem, CZARNListenNodeKeyHashFun>;

  // Takes the place of an entry with the same key. 0; 10001 when there is no memory for a new one.
  keelbase::AWResult AddListenNotify(CZARNListenNodeItem& item);

  keelbase::AWResult LookupListenNotify(CZARNListenNodeKey& key);  // 0; 10012 when there is none

  // 0; 10011 when there is none, with `out` as it was.
  keelbase::AWResult FindListenNotify(CZARNListenNodeKey& key, CZARNListenNodeItem& out);

  keelbase::AWResult RemoveListenNotify(CZARNListenNodeKey& key);  // 0; 10001 when there is none

  std::uint64_t GetSize() const { return map_.size(); }
  void ClearMap() { map_.clear(); }

  // Calls `visit` with a copy of each item, in no particular order; it must not change the
  // registry. What it throws passes. With an entry to visit, an empty `visit` throws
  // std::bad_function_call.
  void DumpStartListenItem(const std::function<void(const CZARNListenNodeItem&)>& visit) const;

  // A copy of the table, for looking through it at leisure. Lets std::bad_alloc pass.
  Map GetMap() const { return map_; }

  // Prints a heading, and for each entry twelve lines of a label and its value, to std::cout, which
  // is flushed after each line.
  static void PrintAllMap(Map map);

 private:
  Map map_;
};

}  // namespace zarn::utils

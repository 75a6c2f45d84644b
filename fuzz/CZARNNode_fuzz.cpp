// CZARNNode_fuzz.cpp - nodes with any fields: what their JSON, text and copies must say.
#include <json/value.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "zarn/utils/CZARNNode.h"

namespace {

using zarn::utils::CZARNNode;

void Check(bool condition) {
  if (!condition) std::abort();
}

// As many bytes as are left, zeros behind them.
template <class Number>
void Take(const std::uint8_t*& data, std::size_t& size, Number& field) {
  const std::size_t part = size < sizeof field ? size : sizeof field;
  Number number = 0;
  std::memcpy(&number, data, part);
  field = number;
  data += part;
  size -= part;
}

CZARNNode MakeNode(const std::uint8_t* data, std::size_t size) {
  CZARNNode node;
  std::uint32_t word = 0;
  std::uint16_t port = 0;
  Take(data, size, node.jno);
  Take(data, size, node.serviceno);
  Take(data, size, node.tno);
  Take(data, size, node.p2pcap);
  Take(data, size, node.status);
  Take(data, size, word);
  node.SetClusterId(word);
  Take(data, size, word);
  node.SetDataCenterId(word);
  Take(data, size, word);
  node.SetNodeId(word);
  for (auto* ip : {&node.pubipaddr, &node.ipaddr, &node.controlleripaddr}) {
    Take(data, size, word);
    Take(data, size, port);
    ip->Set(word, port);
  }
  return node;
}

// A signed member from which the field can be had back.
bool Holds(const Json::Value& out, const char* key, std::uint32_t field) {
  return out[key].type() == Json::intValue && out[key].isInt() &&
         static_cast<std::uint32_t>(out[key].asInt()) == field;
}

bool Holds(const Json::Value& out, const char* key, const keelbase::CAWInetAddr& field) {
  const std::string port = std::string(key) + "_port";
  const keelbase::CAWInetAddr back(out[key].asCString(),
                                   static_cast<std::uint16_t>(out[port].asInt()));
  return out[port].type() == Json::intValue && back == field;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const CZARNNode node = MakeNode(data, size);
  Json::Value out;
  node.ToJson(out);
  Check(out.size() == 15);
  Check(Holds(out, "jno", node.jno) && Holds(out, "serviceno", node.serviceno) &&
        Holds(out, "tno", node.tno) && Holds(out, "p2pcap", node.p2pcap) &&
        Holds(out, "ispublic", 0U) && Holds(out, "status", node.status) &&
        Holds(out, "clusterid", node.GetClusterId()) &&
        Holds(out, "datacenterid", node.GetDataCenterId()));
  Check(out["nodeid"].type() == Json::uintValue && out["nodeid"].asUInt() == node.GetNodeId());
  Check(Holds(out, "pubipaddr", node.pubipaddr) && Holds(out, "ipaddr", node.ipaddr) &&
        Holds(out, "controlleripaddr", node.controlleripaddr));
  const CZARNNode copy(node);
  Check(copy == node && copy.IsEqualsToLogicalAddress(node) && copy.ToString() == node.ToString());
  return 0;
}

// bench_records.cpp - records to and from JSON text, beside jsoncpp doing the same by hand.
//   bench_records address-write|process-write|process-read zarn|jsoncpp [--seconds S]
// prints {"ns": ...} for one record.
#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>

#include <cstdio>
#include <memory>
#include <string>

#include "common/Bench.h"
#include "zarn/utils/CZARNAddress.h"
#include "zarn/utils/CZARNProcess.h"

namespace {

using bench::Fail;
using bench::Now;
using zarn::utils::CZARNAddress;
using zarn::utils::CZARNProcess;

constexpr const char* kProcess = R"({"processname": "store", "procfullpath": "/opt/store/bin/store",
  "projectpath": "/opt/store/bin", "pid": 4711, "pno": 12, "sysprocessflag": 1, "bootflag": 2,
  "restartcount": 3, "processoperation": "restart", "operationstate": "done", "isapp": "1",
  "jsonparam": {"Version": "1.2", "Category": "storage", "Origin": "house", "Title": "Store",
  "Desc": "keeps things", "URL": "http://192.0.2.7/", "AutoRestart": true}})";

CZARNAddress MakeAddress() {
  CZARNAddress address;
  address.jno = 5;
  address.serviceno = 1;
  address.SetClusterId(7);
  address.SetDataCenterId(2);
  address.SetNodeId(31);
  address.pubipaddr.Set("192.0.2.7", 8443);
  address.ipaddr.Set("10.0.0.5", 7000);
  address.controlleripaddr.Set("10.0.0.1", 7001);
  return address;
}

const CZARNAddress& Address() {
  static const CZARNAddress address = MakeAddress();
  return address;
}

// Writes and parses texts as a program would that keeps what it can reuse.
class Codec {
 public:
  Codec() {
    writer_["indentation"] = "";
    reader_.reset(Json::CharReaderBuilder().newCharReader());
  }
  std::string Write(const Json::Value& value) const { return Json::writeString(writer_, value); }
  Json::Value Parse(const std::string& text) const {
    Json::Value value;
    if (!reader_->parse(text.data(), text.data() + text.size(), &value, nullptr))
      Fail("the JSON cannot be parsed");
    return value;
  }

 private:
  Json::StreamWriterBuilder writer_;
  std::unique_ptr<Json::CharReader> reader_;
};

// --- the library ---

std::size_t WriteAddress(const Codec& codec) {
  Json::Value out;
  Address().ToJson(out);
  return codec.Write(out).size();
}

CZARNProcess ReadProcess(const Codec& codec) {
  Json::Value in = codec.Parse(kProcess);
  CZARNProcess process;
  process.FromJson(in);
  return process;
}

std::size_t WriteProcess(const Codec& codec) {
  static const CZARNProcess process = ReadProcess(codec);
  Json::Value out;
  process.ToJson(out);
  return codec.Write(out).size();
}

// --- by hand ---

std::size_t WriteAddressByHand(const Codec& codec) {
  const CZARNAddress& address = Address();
  Json::Value out;
  out["jno"] = static_cast<int>(address.jno);
  out["serviceno"] = static_cast<int>(address.serviceno);
  out["tno"] = static_cast<int>(address.tno);
  out["clusterid"] = static_cast<int>(address.GetClusterId());
  out["datacenterid"] = static_cast<int>(address.GetDataCenterId());
  out["p2pcap"] = static_cast<int>(address.p2pcap);
  out["ispublic"] = static_cast<int>(address.ispublic);
  out["nodeid"] = address.GetNodeId();
  out["pubipaddr"] = address.pubipaddr.GetIpDisplayName();
  out["pubipaddr_port"] = static_cast<int>(address.pubipaddr.GetPort());
  out["ipaddr"] = address.ipaddr.GetIpDisplayName();
  out["ipaddr_port"] = static_cast<int>(address.ipaddr.GetPort());
  out["controlleripaddr"] = address.controlleripaddr.GetIpDisplayName();
  out["controlleripaddr_port"] = static_cast<int>(address.controlleripaddr.GetPort());
  return codec.Write(out).size();
}

struct Process {
  std::string name, path, fullPath, operation, state, isApp;
  std::string version, category, origin, title, desc, url, autoRestart, parameters;
  int pid = -1, pno = 0, sysFlags = 0, bootFlag = 0, restartCount = 0;
};

void Take(const Json::Value& object, const char* key, std::string& field) {
  const Json::Value& member = object[key];
  if (!member.isNull() && member.isString()) field = member.asString();
}

void Take(const Json::Value& object, const char* key, int& field) {
  const Json::Value& member = object[key];
  if (!member.isNull() && member.isInt()) field = member.asInt();
}

Process ReadProcessByHand(const Codec& codec) {
  const Json::Value in = codec.Parse(kProcess);
  Process process;
  Take(in, "processname", process.name);
  Take(in, "procfullpath", process.path);
  Take(in, "projectpath", process.path);
  Take(in, "pid", process.pid);
  Take(in, "pno", process.pno);
  Take(in, "sysprocessflag", process.sysFlags);
  Take(in, "bootflag", process.bootFlag);
  Take(in, "restartcount", process.restartCount);
  Take(in, "processoperation", process.operation);
  Take(in, "operationstate", process.state);
  Take(in, "isapp", process.isApp);
  const Json::Value& parameters = in["jsonparam"];
  if (parameters.isNull()) return process;
  process.parameters = parameters.toStyledString();
  Take(parameters, "Version", process.version);
  Take(parameters, "Category", process.category);
  Take(parameters, "Origin", process.origin);
  Take(parameters, "Title", process.title);
  Take(parameters, "Desc", process.desc);
  Take(parameters, "URL", process.url);
  Take(parameters, "AutoRestart", process.autoRestart);
  return process;
}

std::size_t WriteProcessByHand(const Codec& codec) {
  static const Process process = ReadProcessByHand(codec);
  Json::Value out;
  Json::Value parameters;
  if (!Json::Reader().parse(process.parameters, parameters, true)) return 0;
  for (const std::string& name : parameters.getMemberNames()) {
    const Json::Value& member = parameters[name];
    if (!member.isNull() && member.isString()) out[name] = member.asString();
  }
  out["processname"] = process.name;
  out["procfullpath"] = process.fullPath;
  out["projectpath"] = process.path;
  out["pid"] = process.pid;
  out["sysprocessflag"] = static_cast<unsigned>(process.sysFlags);
  out["bootflag"] = static_cast<unsigned>(process.bootFlag);
  out["restartcount"] = static_cast<unsigned>(process.restartCount);
  out["processoperation"] = process.operation;
  out["operationstate"] = process.state;
  return codec.Write(out).size();
}

// --- measuring ---

using Work = std::size_t (*)(const Codec&);

Work Choose(const std::string& operation, bool ours) {
  if (operation == "address-write") return ours ? WriteAddress : WriteAddressByHand;
  if (operation == "process-write") return ours ? WriteProcess : WriteProcessByHand;
  if (operation != "process-read") Fail("no such operation: " + operation);
  if (ours) return [](const Codec& codec) { return ReadProcess(codec).GetJsonParam().size(); };
  return [](const Codec& codec) { return ReadProcessByHand(codec).parameters.size(); };
}

double Measure(const std::string& operation, bool ours, double wanted) {
  constexpr int kRound = 100;
  const Codec codec;
  const Work work = Choose(operation, ours);
  const std::size_t size = work(codec);
  if (size == 0 || size != Choose(operation, !ours)(codec)) Fail("the two do not do the same");
  const double begin = Now();
  double seconds = 0;
  double records = 0;
  do {
    for (int i = 0; i < kRound; ++i) {
      if (work(codec) != size) Fail("a result has changed");
    }
    records += kRound;
    seconds = Now() - begin;
  } while (seconds < wanted);
  return seconds * 1e9 / records;
}

}  // namespace

int main(int argc, char** argv) {
  const bool usual = argc == 5 && std::string(argv[3]) == "--seconds";
  if (argc != 3 && !usual)
    Fail(
        "usage: bench_records address-write|process-write|process-read zarn|jsoncpp "
        "[--seconds S]");
  const double seconds = usual ? std::stod(argv[4]) : 1;
  std::printf("{\"ns\": %.1f}\n", Measure(argv[1], std::string(argv[2]) == "zarn", seconds));
  return 0;
}

// CZARNProcess.cpp - see CZARNProcess.h.
#include "zarn/utils/CZARNProcess.h"

#include <json/reader.h>

#include <string_view>

#include "JsonMembers.h"

namespace zarn::utils {

using keelbase::CAWString;

namespace {

// Styled text has a tab for each level before each value, so it grows by their product.
constexpr int kKeptLevels = 64;

// Null when there is no such member; never adds one.
const Json::Value* FindMember(const Json::Value& object, std::string_view key) {
  return object.find(key.data(), key.data() + key.size());
}

void ReadText(const Json::Value& object, std::string_view key, CAWString& field) {
  const Json::Value* member = FindMember(object, key);
  const char* begin = nullptr;
  const char* end = nullptr;
  if (member != nullptr && member->getString(&begin, &end)) field.assign(begin, end);
}

template <class Number>
void ReadNumber(const Json::Value& object, std::string_view key, Number& field) {
  const Json::Value* member = FindMember(object, key);
  if (member != nullptr && member->isInt()) field = static_cast<Number>(member->asInt());
}

bool NestsDeeperThan(const Json::Value& value, int levels) {
  if (levels == 0) return true;
  for (const Json::Value& member : value) {
    if (NestsDeeperThan(member, levels - 1)) return true;
  }
  return false;
}

void CopyTexts(const Json::Value& object, Json::Value& out) {
  for (auto member = object.begin(); member != object.end(); ++member) {
    if (member->isString()) out[member.name()] = member->asString();
  }
}

}  // namespace

CZARNProcess::CZARNProcess(const CZARNProcess& other)
    : processOperation_(other.processOperation_), operationState_(other.operationState_) {
  *this = other;
}

CZARNProcess& CZARNProcess::operator=(const CZARNProcess& other) {
  processName_ = other.processName_;
  processPath_ = other.processPath_;
  pid_ = other.pid_;
  pno_ = other.pno_;
  bootFlag_ = other.bootFlag_;
  restartCount_ = other.restartCount_;
  sysProcessFlags_ = other.sysProcessFlags_;
  autoRestart_ = other.autoRestart_;
  version_ = other.version_;
  category_ = other.category_;
  origin_ = other.origin_;
  title_ = other.title_;
  desc_ = other.desc_;
  url_ = other.url_;
  jsonParam_ = other.jsonParam_;
  return *this;
}

void CZARNProcess::FromJson(Json::Value& in) {
  if (!in.isObject()) return;
  ReadText(in, "processname", processName_);
  ReadText(in, "procfullpath", processPath_);
  ReadText(in, "projectpath", processPath_);
  ReadNumber(in, "pid", pid_);
  ReadNumber(in, "pno", pno_);
  ReadNumber(in, "sysprocessflag", sysProcessFlags_);
  ReadNumber(in, "bootflag", bootFlag_);
  ReadNumber(in, "restartcount", restartCount_);
  ReadText(in, "processoperation", processOperation_);
  ReadText(in, "operationstate", operationState_);
  ReadText(in, "isapp", isApp_);
  const Json::Value* parameters = FindMember(in, "jsonparam");
  if (parameters != nullptr && !parameters->isNull()) ReadParameters(*parameters);
}

void CZARNProcess::ReadParameters(const Json::Value& parameters) {
  if (NestsDeeperThan(parameters, kKeptLevels)) return;
  jsonParam_ = parameters.toStyledString();
  if (!parameters.isObject()) return;
  ReadText(parameters, "Version", version_);
  ReadText(parameters, "Category", category_);
  ReadText(parameters, "Origin", origin_);
  ReadText(parameters, "Title", title_);
  ReadText(parameters, "Desc", desc_);
  ReadText(parameters, "URL", url_);
  ReadText(parameters, "AutoRestart", autoRestart_);
}

void CZARNProcess::ToJson(Json::Value& out) const try {
  if (!CanHaveMembers(out)) return;
  if (!jsonParam_.empty()) {
    Json::Value parameters;
    constexpr bool kKeepComments = false;  // takes time by the square of their number
    if (!Json::Reader().parse(jsonParam_, parameters, kKeepComments)) return;
    if (parameters.isObject()) CopyTexts(parameters, out);
  }
  out["processname"] = processName_;
  out["procfullpath"] = fullPath_;
  out["projectpath"] = processPath_;
  out["pid"] = Json::Value(Json::Int{pid_});
  out["sysprocessflag"] = Json::Value(Json::UInt{sysProcessFlags_});
  out["bootflag"] = Json::Value(Json::UInt{bootFlag_});
  out["restartcount"] = Json::Value(Json::UInt{restartCount_});
  out["processoperation"] = processOperation_;
  out["operationstate"] = operationState_;
} catch (const Json::Exception&) {
  // Thrown by the parser for what nests too deep, before anything is written.
}

}  // namespace zarn::utils

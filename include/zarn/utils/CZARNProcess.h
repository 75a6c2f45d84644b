// CZARNProcess.h - a managed process: what it is, how it is started, what was asked of it.
#pragma once

#include <json/forwards.h>

#include <cstdint>

#include "keelbase/CAWString.h"
#include "zarn/utils/zarndefines.h"

namespace zarn::utils {

// A value: one thread at a time. Reads and writes JSON, but not symmetrically: the number of the
// process, whether it is an application, and the object of parameters are only read; strings of the
// parameters are written beside the other members. What copies, assigns or converts lets
// std::bad_alloc pass and no other exception.
//
// Copies are partial: neither kind carries the full path and the is-app text, and assignment leaves
// the operation and its state of the target alone.
//
//   CZARNProcess process;
//   Json::Value in;
//   Json::Reader().parse(R"({"processname": "store", "jsonparam": {"Version": "1.2"}})", in);
//   process.FromJson(in);
//   process.SetPid(4711);
//   Json::Value out;
//   process.ToJson(out);  // "Version": "1.2", "pid": 4711, "processname": "store", ...
class ZARNUTILS_API CZARNProcess {
 public:
  CZARNProcess() = default;
  CZARNProcess(const CZARNProcess& other);
  CZARNProcess& operator=(const CZARNProcess& other);

  // Takes over the members that are there and of the right kind; every other field stays as it was.
  // "projectpath" goes before "procfullpath", both are the process path. Numbers must fit a signed
  // 32-bit integer. `in` is not changed.
  //
  // "jsonparam" is kept as styled text, whatever it is; of an object, the strings "Version",
  // "Category", "Origin", "Title", "Desc", "URL" and "AutoRestart" are also taken apart. It is
  // passed over when it nests more than 64 levels: the text has a tab for each before each value.
  void FromJson(Json::Value& in);

  // Sets members of `out` and leaves its others alone: first the strings among the JSON parameters,
  // then the fixed ones, which therefore win. When the JSON parameters are not empty and cannot be
  // parsed, or `out` is neither an object nor null, nothing is written at all.
  void ToJson(Json::Value& out) const;

  const keelbase::CAWString& GetProcessName() const { return processName_; }
  void SetProcessName(const keelbase::CAWString& name) { processName_ = name; }
  const keelbase::CAWString& GetProcessPath() const { return processPath_; }
  void SetProcessPath(const keelbase::CAWString& path) { processPath_ = path; }

  int GetPid() const { return pid_; }  // -1 before it is known
  void SetPid(int pid) { pid_ = pid; }
  std::uint16_t GetPno() const { return pno_; }

  // How it is started and what it is being told; only carried.
  unsigned GetBootFlag() const { return bootFlag_; }
  void SetBootFlag(unsigned flag) { bootFlag_ = flag; }
  unsigned GetRestartCount() const { return restartCount_; }
  void SetRestartCount(unsigned count) { restartCount_ = count; }
  unsigned GetSysbootflags() const { return sysProcessFlags_; }
  void SetSysbootflags(unsigned flags) { sysProcessFlags_ = flags; }
  const keelbase::CAWString& GetProcessoperation() const { return processOperation_; }
  void SetProcessoperation(const keelbase::CAWString& text) { processOperation_ = text; }
  const keelbase::CAWString& GetOperationstate() const { return operationState_; }
  void SetOperationstate(const keelbase::CAWString& text) { operationState_ = text; }

  // Of an application. Setting them does not change the JSON parameters, which are what is written.
  const keelbase::CAWString& GetVersion() const { return version_; }
  void SetVersion(const keelbase::CAWString& text) { version_ = text; }
  const keelbase::CAWString& GetCategory() const { return category_; }
  void SetCategory(const keelbase::CAWString& text) { category_ = text; }
  const keelbase::CAWString& GetOrigin() const { return origin_; }
  void SetOrigin(const keelbase::CAWString& text) { origin_ = text; }
  const keelbase::CAWString& GetTitle() const { return title_; }
  void SetTitle(const keelbase::CAWString& text) { title_ = text; }
  const keelbase::CAWString& GetDesc() const { return desc_; }
  void SetDesc(const keelbase::CAWString& text) { desc_ = text; }
  const keelbase::CAWString& GetURL() const { return url_; }
  void SetURL(const keelbase::CAWString& text) { url_ = text; }

  // JSON text. Setting it does not change the fields above.
  const keelbase::CAWString& GetJsonParam() const { return jsonParam_; }
  void SetJsonParam(const keelbase::CAWString& text) { jsonParam_ = text; }

  // A text, not a truth value: "1", say.
  const keelbase::CAWString& GetIsApp() const { return isApp_; }
  void SetIsApp(const keelbase::CAWString& text) { isApp_ = text; }

 private:
  void ReadParameters(const Json::Value& parameters);

  keelbase::CAWString processName_;
  keelbase::CAWString processPath_;
  keelbase::CAWString fullPath_;  // written as "procfullpath"; nothing sets it
  std::int32_t pid_ = -1;
  std::uint16_t pno_ = 0;
  std::uint32_t bootFlag_ = 0;
  std::uint32_t restartCount_ = 0;
  std::uint32_t sysProcessFlags_ = 0;
  keelbase::CAWString processOperation_;
  keelbase::CAWString operationState_;
  keelbase::CAWString autoRestart_;  // of the application; kept and copied, nothing asks for it
  keelbase::CAWString version_;
  keelbase::CAWString category_;
  keelbase::CAWString origin_;
  keelbase::CAWString title_;
  keelbase::CAWString desc_;
  keelbase::CAWString url_;
  keelbase::CAWString jsonParam_;
  keelbase::CAWString isApp_;
};

}  // namespace zarn::utils

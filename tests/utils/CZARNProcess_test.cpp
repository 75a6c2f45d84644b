// CZARNProcess_test.cpp - process descriptors: their JSON, which is not symmetric, and their
// copies.
#include "zarn/utils/CZARNProcess.h"

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>

#include <initializer_list>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "TestData.h"

namespace zarn::test {
namespace {

using utils::CZARNProcess;

static_assert(!std::is_polymorphic_v<CZARNProcess>);

// Sanitizers take so long over 100 MB that they get less.
#if defined(__SANITIZE_ADDRESS__) || defined(__clang__)
constexpr std::size_t kLargeJson = 5 << 20;
#else
constexpr std::size_t kLargeJson = 100 << 20;
#endif

Json::Value Parse(const std::string& text) {
  Json::CharReaderBuilder builder;
  builder["stackLimit"] = 1000000;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr))
    throw std::invalid_argument(text);
  return value;
}

CZARNProcess Read(const std::string& text) {
  Json::Value in = Parse(text);
  CZARNProcess process;
  process.FromJson(in);
  return process;
}

Json::Value Write(const CZARNProcess& process) {
  Json::Value out;
  process.ToJson(out);
  return out;
}

// What is written for a process that has nothing but these parameters.
Json::Value WriteWithParameters(const std::string& text) {
  CZARNProcess process;
  process.SetJsonParam(text);
  return Write(process);
}

// `levels` values in one another, the innermost of them a number.
std::string Nested(std::size_t levels) {
  return std::string(levels - 1, '[') + "1" + std::string(levels - 1, ']');
}

// --- fields ---

TEST(CZARNProcess, DefaultIsEmptyAndWithoutPid) {
  const CZARNProcess process;
  EXPECT_EQ(process.GetPid(), -1);
  EXPECT_EQ(process.GetPno(), 0U);
  EXPECT_EQ(process.GetBootFlag(), 0U);
  EXPECT_EQ(process.GetRestartCount(), 0U);
  EXPECT_EQ(process.GetSysbootflags(), 0U);
  for (const auto* text :
       {&process.GetProcessName(), &process.GetProcessPath(), &process.GetProcessoperation(),
        &process.GetOperationstate(), &process.GetVersion(), &process.GetCategory(),
        &process.GetOrigin(), &process.GetTitle(), &process.GetDesc(), &process.GetURL(),
        &process.GetJsonParam(), &process.GetIsApp()})
    EXPECT_EQ(*text, "");
}

TEST(CZARNProcess, EachSetterSetsItsField) {
  CZARNProcess process;
  process.SetProcessName("name");
  process.SetProcessPath("path");
  process.SetPid(12);
  process.SetBootFlag(0xFFFFFFFFU);
  process.SetRestartCount(14);
  process.SetSysbootflags(15);
  process.SetProcessoperation("operation");
  process.SetOperationstate("state");
  process.SetVersion("version");
  process.SetCategory("category");
  process.SetOrigin("origin");
  process.SetTitle("title");
  process.SetDesc("desc");
  process.SetURL("url");
  process.SetJsonParam("{}");
  process.SetIsApp("1");
  EXPECT_EQ(process.GetProcessName(), "name");
  EXPECT_EQ(process.GetProcessPath(), "path");
  EXPECT_EQ(process.GetPid(), 12);
  EXPECT_EQ(process.GetBootFlag(), 0xFFFFFFFFU);
  EXPECT_EQ(process.GetRestartCount(), 14U);
  EXPECT_EQ(process.GetSysbootflags(), 15U);
  EXPECT_EQ(process.GetProcessoperation(), "operation");
  EXPECT_EQ(process.GetOperationstate(), "state");
  EXPECT_EQ(process.GetVersion(), "version");
  EXPECT_EQ(process.GetCategory(), "category");
  EXPECT_EQ(process.GetOrigin(), "origin");
  EXPECT_EQ(process.GetTitle(), "title");
  EXPECT_EQ(process.GetDesc(), "desc");
  EXPECT_EQ(process.GetURL(), "url");
  EXPECT_EQ(process.GetJsonParam(), "{}");
  EXPECT_EQ(process.GetIsApp(), "1");
}

// --- reading ---

TEST(CZARNProcess, ReadsEachMemberIntoItsField) {
  const CZARNProcess process = Read(ReadTestData("process_in.json"));
  EXPECT_EQ(process.GetProcessName(), "store");
  EXPECT_EQ(process.GetProcessPath(), "/opt/store/bin");
  EXPECT_EQ(process.GetPid(), 4711);
  EXPECT_EQ(process.GetPno(), 12U);
  EXPECT_EQ(process.GetSysbootflags(), 1U);
  EXPECT_EQ(process.GetBootFlag(), 2U);
  EXPECT_EQ(process.GetRestartCount(), 3U);
  EXPECT_EQ(process.GetProcessoperation(), "restart");
  EXPECT_EQ(process.GetOperationstate(), "done");
  EXPECT_EQ(process.GetIsApp(), "1");
  EXPECT_EQ(process.GetVersion(), "1.2");
  EXPECT_EQ(process.GetCategory(), "storage");
  EXPECT_EQ(process.GetOrigin(), "house");
  EXPECT_EQ(process.GetTitle(), "St\xC3\xB6re");
  EXPECT_EQ(process.GetDesc(), "keeps things");
  EXPECT_EQ(process.GetURL(), "http://192.0.2.7/");
  EXPECT_EQ(process.GetJsonParam(), ReadTestData("process_jsonparam.json"));
}

TEST(CZARNProcess, WhatIsMissingNullOrOfAnotherKindLeavesItsField) {
  const CZARNProcess before = Read(ReadTestData("process_in.json"));
  for (const char* other : {"null", "true", "[1]", "{\"a\": 1}"}) {
    CZARNProcess process = before;
    process.SetProcessoperation("restart");
    process.SetOperationstate("done");
    process.SetIsApp("1");
    Json::Value in;
    for (const char* key :
         {"processname", "procfullpath", "projectpath", "pid", "pno", "sysprocessflag", "bootflag",
          "restartcount", "processoperation", "operationstate", "isapp"})
      in[key] = Parse(other);
    process.FromJson(in);
    EXPECT_EQ(Write(process), Write(before)) << other;
    EXPECT_EQ(process.GetPno(), 12U);
    EXPECT_EQ(process.GetIsApp(), "1");
  }
}

TEST(CZARNProcess, EmptyObjectChangesNothing) {
  EXPECT_EQ(Write(Read("{}")), Write(CZARNProcess()));
  EXPECT_EQ(Read(R"({"jsonparam": null})").GetJsonParam(), "");
}

TEST(CZARNProcess, ValueThatIsNoObjectChangesNothing) {
  for (const char* text : {"null", "[1, 2]", "\"text\"", "17", "1.5", "true"}) {
    EXPECT_EQ(Write(Read(text)), Write(CZARNProcess())) << text;
  }
}

TEST(CZARNProcess, ReadingDoesNotChangeTheValueThatIsRead) {
  for (const char* text : {"{}", "null", R"({"jsonparam": {"Version": "1"}, "pid": 1})"}) {
    Json::Value in = Parse(text);
    CZARNProcess process;
    process.FromJson(in);
    EXPECT_EQ(in, Parse(text)) << text;
  }
}

TEST(CZARNProcess, ProjectPathWinsOverFullPathAndTheLatterIsWrittenEmpty) {
  const CZARNProcess process = Read(R"({"procfullpath": "/a", "projectpath": "/b"})");
  EXPECT_EQ(process.GetProcessPath(), "/b");
  const Json::Value out = Write(process);
  EXPECT_EQ(out["procfullpath"].asString(), "");
  EXPECT_EQ(out["projectpath"].asString(), "/b");
  EXPECT_EQ(Read(R"({"procfullpath": "/a"})").GetProcessPath(), "/a");
}

TEST(CZARNProcess, PidMustBeANumber) { EXPECT_EQ(Read(R"({"pid": "12"})").GetPid(), -1); }

TEST(CZARNProcess, NumbersMustFitASigned32BitInteger) {
  EXPECT_EQ(Read(R"({"pid": 2147483647})").GetPid(), 2147483647);
  EXPECT_EQ(Read(R"({"pid": -2147483648})").GetPid(), std::numeric_limits<int>::min());
  EXPECT_EQ(Read(R"({"pid": 2147483648})").GetPid(), -1);
  EXPECT_EQ(Read(R"({"pid": -2147483649})").GetPid(), -1);
  EXPECT_EQ(Read(R"({"pid": 99999999999999999999999})").GetPid(), -1);
  EXPECT_EQ(Read(R"({"pid": 1.5})").GetPid(), -1);
  EXPECT_EQ(Read(R"({"pid": 1e300})").GetPid(), -1);
  EXPECT_EQ(Read(R"({"bootflag": 4294967295})").GetBootFlag(), 0U);
  EXPECT_EQ(Read(R"({"bootflag": 2147483647})").GetBootFlag(), 2147483647U);
  Json::Value in;
  in["pid"] = std::numeric_limits<double>::quiet_NaN();
  CZARNProcess process;
  process.FromJson(in);
  EXPECT_EQ(process.GetPid(), -1);
}

TEST(CZARNProcess, NumbersAreNarrowedToTheirFields) {
  EXPECT_EQ(Read(R"({"pno": 65537})").GetPno(), 1U);
  EXPECT_EQ(Read(R"({"pno": -1})").GetPno(), 65535U);
  EXPECT_EQ(Read(R"({"bootflag": -1})").GetBootFlag(), 4294967295U);
  EXPECT_EQ(Read(R"({"restartcount": -2})").GetRestartCount(), 4294967294U);
  EXPECT_EQ(Read(R"({"sysprocessflag": -3})").GetSysbootflags(), 4294967293U);
}

TEST(CZARNProcess, IsAppIsAText) {
  EXPECT_EQ(Read(R"({"isapp": true})").GetIsApp(), "");
  EXPECT_EQ(Read(R"({"isapp": 1})").GetIsApp(), "");
  EXPECT_EQ(Read(R"({"isapp": "1"})").GetIsApp(), "1");
}

TEST(CZARNProcess, TextsKeepTheirZeroBytes) {
  EXPECT_EQ(Read(R"({"processname": "a\u0000b"})").GetProcessName(), std::string("a\0b", 3));
  const Json::Value out = WriteWithParameters(R"({"k\u0000ey": "a\u0000b"})");
  EXPECT_EQ(out[std::string("k\0ey", 4)].asString(), std::string("a\0b", 3));
}

// --- parameters ---

TEST(CZARNProcess, ParametersAreTakenApartAndKeptAsText) {
  const std::string parameters = R"({"Version": "1.2", "AutoRestart": true})";
  const CZARNProcess process = Read(R"({"jsonparam": )" + parameters + "}");
  EXPECT_EQ(process.GetVersion(), "1.2");
  EXPECT_EQ(process.GetJsonParam(), Parse(parameters).toStyledString());
  const Json::Value out = Write(process);
  EXPECT_EQ(out["Version"].asString(), "1.2");
  EXPECT_FALSE(out.isMember("AutoRestart"));
  EXPECT_FALSE(out.isMember("jsonparam"));
}

TEST(CZARNProcess, ParametersThatAreNoObjectAreKeptAsTextOnly) {
  for (const char* text : {"[1, \"Version\"]", "\"text\"", "17", "false", "[]", "\"\""}) {
    const CZARNProcess process = Read(std::string(R"({"jsonparam": )") + text + "}");
    EXPECT_EQ(process.GetJsonParam(), Parse(text).toStyledString()) << text;
    EXPECT_EQ(process.GetVersion(), "");
    EXPECT_EQ(Write(process), Write(CZARNProcess())) << text;
  }
}

TEST(CZARNProcess, FixedMembersWinOverParametersOfTheSameName) {
  const Json::Value out = WriteWithParameters(R"({"pid": "x", "processname": "x", "pno": "x"})");
  EXPECT_EQ(out["pid"], Json::Value(-1));
  EXPECT_EQ(out["pid"].type(), Json::intValue);
  EXPECT_EQ(out["processname"].asString(), "");
  EXPECT_EQ(out["pno"].asString(), "x");
}

TEST(CZARNProcess, OnlyTextsOfTheParametersAreWritten) {
  const Json::Value out = WriteWithParameters(
      R"({"text": "t", "empty": "", "n": 1, "d": 1.5, "b": true, "z": null, "a": ["x"], "o": {"x": "y"}})");
  EXPECT_EQ(out.size(), Write(CZARNProcess()).size() + 2);
  EXPECT_EQ(out["text"].asString(), "t");
  EXPECT_TRUE(out["empty"].isString());
}

TEST(CZARNProcess, CommentsOfTheParametersAreNotWritten) {
  const Json::Value out = WriteWithParameters("{ // first\n \"text\": \"t\" /* second */ }");
  EXPECT_EQ(out["text"].asString(), "t");
  EXPECT_EQ(out.toStyledString().find("/"), std::string::npos);
}

TEST(CZARNProcess, ParametersThatCannotBeParsedLeaveTheTargetUntouched) {
  for (const char* text : {"{", "no JSON", " ", "{\"a\": \"b\"", "{\"a\": \"\\ud800\"}"}) {
    CZARNProcess process;
    process.SetProcessName("store");
    process.SetJsonParam(text);
    Json::Value null;
    process.ToJson(null);
    EXPECT_TRUE(null.isNull()) << text;
    Json::Value out;
    out["processname"] = "before";
    process.ToJson(out);
    EXPECT_EQ(out.size(), 1U) << text;
    EXPECT_EQ(out["processname"].asString(), "before");
  }
}

TEST(CZARNProcess, FieldsThatWereSetAreNotParameters) {
  CZARNProcess process;
  process.SetVersion("1.2");
  EXPECT_FALSE(Write(process).isMember("Version"));
}

// --- writing ---

TEST(CZARNProcess, JsonIsThatOfTheFile) {
  EXPECT_EQ(Write(Read(ReadTestData("process_in.json"))).toStyledString(),
            ReadTestData("process_out.json"));
}

TEST(CZARNProcess, JsonOfADefaultIsThatOfTheFile) {
  EXPECT_EQ(Write(CZARNProcess()).toStyledString(), ReadTestData("process_default.json"));
}

TEST(CZARNProcess, PidIsSignedAndFlagsAreUnsigned) {
  CZARNProcess process;
  process.SetPid(7);
  process.SetBootFlag(0xFFFFFFFFU);
  const Json::Value out = Write(process);
  EXPECT_EQ(out["pid"].type(), Json::intValue);
  for (const char* key : {"sysprocessflag", "bootflag", "restartcount"})
    EXPECT_EQ(out[key].type(), Json::uintValue) << key;
  EXPECT_EQ(out["bootflag"].asUInt(), 4294967295U);
}

TEST(CZARNProcess, NumberIsAppAndParametersAreNeverWritten) {
  const Json::Value out = Write(Read(ReadTestData("process_in.json")));
  for (const char* key : {"pno", "isapp", "jsonparam"}) EXPECT_FALSE(out.isMember(key)) << key;
}

TEST(CZARNProcess, OtherMembersOfTheTargetStay) {
  Json::Value out;
  out["other"] = 1;
  out["pid"] = "replaced";
  CZARNProcess().ToJson(out);
  EXPECT_EQ(out["other"].asInt(), 1);
  EXPECT_EQ(out["pid"].asInt(), -1);
}

TEST(CZARNProcess, TargetThatCannotHaveMembersStaysAsItIs) {
  CZARNProcess process;
  process.SetJsonParam(R"({"a": "b"})");
  Json::Value array(Json::arrayValue);
  Json::Value text("text");
  process.ToJson(array);
  process.ToJson(text);
  EXPECT_TRUE(array.isArray() && array.empty());
  EXPECT_EQ(text.asString(), "text");
}

// --- copying ---

CZARNProcess MakeFull() {
  CZARNProcess process = Read(ReadTestData("process_in.json"));
  process.SetProcessoperation("stop");
  process.SetOperationstate("asked");
  process.SetIsApp("1");
  return process;
}

void ExpectCommonFields(const CZARNProcess& copy, const CZARNProcess& process) {
  EXPECT_EQ(copy.GetProcessName(), process.GetProcessName());
  EXPECT_EQ(copy.GetProcessPath(), process.GetProcessPath());
  EXPECT_EQ(copy.GetPid(), process.GetPid());
  EXPECT_EQ(copy.GetPno(), process.GetPno());
  EXPECT_EQ(copy.GetBootFlag(), process.GetBootFlag());
  EXPECT_EQ(copy.GetRestartCount(), process.GetRestartCount());
  EXPECT_EQ(copy.GetSysbootflags(), process.GetSysbootflags());
  EXPECT_EQ(copy.GetVersion(), process.GetVersion());
  EXPECT_EQ(copy.GetCategory(), process.GetCategory());
  EXPECT_EQ(copy.GetOrigin(), process.GetOrigin());
  EXPECT_EQ(copy.GetTitle(), process.GetTitle());
  EXPECT_EQ(copy.GetDesc(), process.GetDesc());
  EXPECT_EQ(copy.GetURL(), process.GetURL());
  EXPECT_EQ(copy.GetJsonParam(), process.GetJsonParam());
}

TEST(CZARNProcess, CopyConstructedHasTheOperationButNotIsApp) {
  const CZARNProcess process = MakeFull();
  const CZARNProcess copy(process);
  ExpectCommonFields(copy, process);
  EXPECT_EQ(copy.GetProcessoperation(), "stop");
  EXPECT_EQ(copy.GetOperationstate(), "asked");
  EXPECT_EQ(copy.GetIsApp(), "");
  EXPECT_EQ(Write(copy)["procfullpath"].asString(), "");
}

TEST(CZARNProcess, AssignedKeepsItsOwnOperationStateAndIsApp) {
  const CZARNProcess process = MakeFull();
  CZARNProcess target;
  target.SetProcessoperation("start");
  target.SetOperationstate("running");
  target.SetIsApp("0");
  target = process;
  ExpectCommonFields(target, process);
  EXPECT_EQ(target.GetProcessoperation(), "start");
  EXPECT_EQ(target.GetOperationstate(), "running");
  EXPECT_EQ(target.GetIsApp(), "0");
}

TEST(CZARNProcess, AssignmentToItselfChangesNothing) {
  CZARNProcess process = MakeFull();
  const CZARNProcess& same = process;
  process = same;
  ExpectCommonFields(process, MakeFull());
  EXPECT_EQ(process.GetProcessoperation(), "stop");
  EXPECT_EQ(process.GetIsApp(), "1");
}

// --- hostile JSON ---

TEST(CZARNProcess, ParametersOf64LevelsAreReadAndWritten) {
  const CZARNProcess process = Read(R"({"jsonparam": )" + Nested(64) + "}");
  EXPECT_EQ(process.GetJsonParam(), Parse(Nested(64)).toStyledString());
  EXPECT_EQ(Write(process), Write(CZARNProcess()));
}

TEST(CZARNProcess, DeeperParametersArePassedOver) {
  for (const std::size_t levels : {65, 1000, 10000}) {
    const CZARNProcess process = Read(R"({"pid": 3, "jsonparam": {"Version": "1", "x": )" +
                                      Nested(levels - 1) + R"(}, "isapp": "1"})");
    EXPECT_EQ(process.GetJsonParam(), "") << levels;
    EXPECT_EQ(process.GetVersion(), "");
    EXPECT_EQ(process.GetPid(), 3);
    EXPECT_EQ(Write(process)["pid"].asInt(), 3);
  }
}

TEST(CZARNProcess, DeeperParameterTextCountsAsOneThatCannotBeParsed) {
  EXPECT_FALSE(WriteWithParameters(Nested(1000)).isNull());
  for (const std::size_t levels : {1001, 10000, 1000000}) {
    EXPECT_TRUE(WriteWithParameters(Nested(levels)).isNull()) << levels;
    EXPECT_TRUE(WriteWithParameters(std::string(levels, '[')).isNull()) << levels;
  }
}

TEST(CZARNProcess, DepthElsewhereDoesNotMatter) {
  EXPECT_EQ(Read(R"({"other": )" + Nested(10000) + R"(, "pid": 5})").GetPid(), 5);
}

TEST(CZARNProcess, BytesThatAreNoUtf8AreTakenAsTheyAreAndMendedInTheParameters) {
  const std::string bytes = "a\xFF\xC3z";
  const CZARNProcess process =
      Read("{\"processname\": \"" + bytes + "\", \"jsonparam\": {\"Title\": \"" + bytes + "\"}}");
  EXPECT_EQ(process.GetProcessName(), bytes);
  EXPECT_EQ(process.GetTitle(), bytes);
  const Json::Value out = Write(process);
  EXPECT_EQ(out["processname"].asString(), bytes);
  EXPECT_TRUE(out["Title"].isString());
  EXPECT_EQ(out["Title"].asString().front(), 'a');
}

TEST(CZARNProcess, JsonOf100MegabytesIsHandled) {
  const std::string large(kLargeJson, 'x');
  CZARNProcess process;
  {
    Json::Value in;
    in["jsonparam"]["Desc"] = large;
    process.FromJson(in);
  }
  EXPECT_EQ(process.GetDesc(), large);
  EXPECT_EQ(Write(process)["Desc"].asString(), large);
  process.SetJsonParam(large);
  EXPECT_TRUE(Write(process).isNull());
}

}  // namespace
}  // namespace zarn::test

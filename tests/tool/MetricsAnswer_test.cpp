// MetricsAnswer_test.cpp - how the program zarn reads the metrics of a process, and what it makes
// of them for Prometheus.
#include "../../tools/zarn/MetricsAnswer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <regex>
#include <sstream>
#include <string>

#include "../../tools/zarn/Prometheus.h"
#include "MetricsFields.h"
#include "MetricsJson.h"

namespace zarn::tool {
namespace {

using ::testing::HasSubstr;

utils::CZARNMetrics SomeMetrics() {
  utils::CZARNMetrics metrics;
  std::uint64_t value = std::numeric_limits<std::uint64_t>::max();
  for (int i = 0; i < 2; ++i) {
    utils::CZARNStreamMetrics& stream = metrics.streams.emplace_back();
    stream.number = static_cast<std::uint64_t>(i) + 1;
    stream.transport = i == 0 ? "ipc" : "tls";
    stream.isClient = i == 0;
    stream.isConnected = i == 1;
    stream.peer = i == 0 ? "a\"b\\c\n\x01" : "127.0.0.1:80";
    stream.local = "3_4";
    for (const utils::MetricsField& field : utils::kMetricsFields) field.at(stream) = value--;
    stream.counters.lastDisconnectReason = -10001;
  }
  return metrics;
}

std::string GoodText() { return utils::ToJson(SomeMetrics()); }

// What is wrong with the good text once `part` is `other`.
std::string ProblemWith(const std::string& part, const std::string& other) {
  std::string text = GoodText();
  const std::size_t at = text.find(part);
  EXPECT_NE(at, std::string::npos) << part;
  ProcessMetrics process;
  return ParseMetrics(text.replace(at, part.size(), other), process);
}

TEST(ParseMetrics, ReadsWhatTheLibraryWrites) {
  utils::CZARNMetrics sent = SomeMetrics();
  sent.isComplete = false;
  ProcessMetrics process;
  ASSERT_EQ(ParseMetrics(utils::ToJson(sent), process), "");
  EXPECT_FALSE(process.metrics.isComplete);
  EXPECT_EQ(process.omitted, 0U);
  ASSERT_EQ(process.metrics.streams.size(), 2U);
  for (std::size_t i = 0; i < 2; ++i) {
    utils::CZARNStreamMetrics& got = process.metrics.streams[i];
    EXPECT_EQ(got.number, i + 1);
    EXPECT_EQ(got.transport, sent.streams[i].transport);
    EXPECT_EQ(got.isClient, sent.streams[i].isClient);
    EXPECT_EQ(got.isConnected, sent.streams[i].isConnected);
    EXPECT_EQ(got.peer, sent.streams[i].peer);
    EXPECT_EQ(got.local, "3_4");
    EXPECT_EQ(got.counters.lastDisconnectReason, -10001);
    for (const utils::MetricsField& field : utils::kMetricsFields)
      EXPECT_EQ(field.at(got), field.at(sent.streams[i])) << field.name;
  }
}

TEST(ParseMetrics, TellsWhatWasLeftOut) {
  utils::CZARNMetrics many;
  many.streams.resize(utils::kMaxStreamsShown + 3);
  ProcessMetrics process;
  ASSERT_EQ(ParseMetrics(utils::ToJson(many), process), "");
  EXPECT_EQ(process.metrics.streams.size(), utils::kMaxStreamsShown);
  EXPECT_EQ(process.omitted, 3U);
}

TEST(ParseMetrics, PassesOverMembersThatItDoesNotKnow) {
  EXPECT_EQ(ProblemWith("\"format\":1", "\"format\":1,\"news\":[1]"), "");
  EXPECT_EQ(ProblemWith("\"stream\":2", "\"stream\":2,\"news\":{\"a\":\"b\"}"), "");
}

TEST(ParseMetrics, RefusesEveryTextThatIsCut) {
  const std::string text = GoodText();
  for (std::size_t length = 0; length < text.size(); ++length) {
    ProcessMetrics process;
    EXPECT_NE(ParseMetrics(std::string_view(text).substr(0, length), process), "") << length;
  }
}

TEST(ParseMetrics, RefusesEverythingElse) {
  EXPECT_THAT(ProblemWith("\"format\":1", "\"format\":2"), HasSubstr("not known"));
  EXPECT_THAT(ProblemWith("\"streams\":2", "\"streams\":1"), HasSubstr("more follows"));
  EXPECT_THAT(ProblemWith("\"streams\":2", "\"streams\":3"), HasSubstr("ends in the middle"));
  EXPECT_THAT(ProblemWith("\"streams\":2", "\"streams\":4097"), HasSubstr("too many"));
  EXPECT_THAT(ProblemWith("\"streams\":2", "\"streams\":-1"), HasSubstr("'streams'"));
  EXPECT_THAT(ProblemWith("\"complete\":true", "\"complete\":1"), HasSubstr("'complete'"));
  EXPECT_THAT(ProblemWith("18446744073709551615", "18446744073709551616"), HasSubstr("'mess"));
  EXPECT_THAT(ProblemWith("18446744073709551615", "1.5"), HasSubstr("'mess"));
  EXPECT_THAT(ProblemWith("\"peer\":\"", "\"pear\":\""), HasSubstr("'peer'"));
  EXPECT_THAT(ProblemWith("\"role\":\"client\"", "\"role\":null"), HasSubstr("'role'"));
  EXPECT_THAT(ProblemWith("\"last_reason\":-10001", "\"last_reason\":\"x\""), HasSubstr("'last_r"));
  EXPECT_THAT(ProblemWith("{\"stream\":1", "[\"stream\":1"), HasSubstr("no JSON object"));
  EXPECT_THAT(ProblemWith("\"format\":1", "\"format\":1,\"x\":" + std::string(1000, '[')),
              HasSubstr("no JSON object"));
  EXPECT_THAT(ProblemWith("\"peer\":\"", "\"peer\":\"" + std::string(20000, 'x')),
              HasSubstr("too long"));
}

// --- Prometheus ---

std::string PrometheusOf(const std::string& program) {
  ProcessMetrics process;
  EXPECT_EQ(ParseMetrics(GoodText(), process), "");
  process.process = 42;
  process.program = program;
  return ToPrometheus({process});
}

TEST(ToPrometheus, EveryLineIsHelpTypeOrASample) {
  const std::regex help("# HELP zarn_[a-z_]+ .+");
  const std::regex type("# TYPE zarn_[a-z_]+ (gauge|counter)");
  const std::regex sample(R"re(zarn_[a-z_]+\{([a-z]+="([^"\\\n]|\\["\\n])*",?)+\} -?[0-9]+)re");
  std::istringstream lines(PrometheusOf("a\"b"));
  for (std::string line; std::getline(lines, line);)
    EXPECT_TRUE(std::regex_match(line, help) || std::regex_match(line, type) ||
                std::regex_match(line, sample))
        << line;
}

TEST(ToPrometheus, CountersSayTotalAndHeadsComeOnceBeforeTheirSamples) {
  const std::string text = PrometheusOf("p");
  EXPECT_THAT(text,
              HasSubstr("# HELP zarn_stream_messages_sent_total Messages that were accepted for "
                        "sending.\n# TYPE zarn_stream_messages_sent_total counter\n"
                        "zarn_stream_messages_sent_total{pid=\"42\",program=\"p\",stream=\"1\","));
  EXPECT_THAT(text, HasSubstr("# TYPE zarn_stream_send_queue_bytes gauge\n"));
  EXPECT_THAT(text, HasSubstr(",stream=\"2\",transport=\"tls\",role=\"accepted\",local=\"3_4\","
                              "peer=\"127.0.0.1:80\"} 18446744073709551"));
  const std::string head = "# TYPE zarn_stream_connects_total ";
  EXPECT_EQ(text.find(head), text.rfind(head));
}

TEST(ToPrometheus, LabelsAreEscaped) {
  const std::string text = PrometheusOf("p");
  EXPECT_THAT(text, HasSubstr(R"(peer="a\"b\\\\c\\n\\x01")"));
}

TEST(ToPrometheus, NoProcessLeavesTheHeads) {
  EXPECT_THAT(ToPrometheus({}), HasSubstr("# TYPE zarn_stream_connected gauge\n# HELP"));
}

}  // namespace
}  // namespace zarn::tool

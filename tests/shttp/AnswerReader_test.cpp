// AnswerReader_test.cpp - what is made of the bytes of servers, good and bad, in pieces of any
// size.
#include "AnswerReader.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <string>
#include <vector>

#include "shttp/CAWHttpManager.h"

namespace zarn::test {
namespace {

using shttp::AnswerReader;
using shttp::CAWHttpLimits;

struct Answer {
  int error = 0;
  bool whole = false;  // before the end of the connection
  int status = 0;
  std::string body;

  bool operator==(const Answer& other) const {
    return error == other.error && whole == other.whole && status == other.status &&
           body == other.body;
  }
};

std::ostream& operator<<(std::ostream& out, const Answer& answer) {
  return out << "error " << answer.error << ", whole " << answer.whole << ", status "
             << answer.status << ", body of " << answer.body.size() << ": "
             << answer.body.substr(0, 60);
}

Answer Read(const std::string& wire, std::size_t piece, const CAWHttpLimits& limits = {},
            bool bodyless = false) {
  AnswerReader reader(limits, bodyless);
  Answer answer;
  for (std::size_t at = 0; at < wire.size() && answer.error == 0 && !reader.IsWhole(); at += piece)
    answer.error = reader.Add(std::string_view(wire).substr(at, piece));
  answer.whole = reader.IsWhole();
  if (answer.error == 0) answer.error = reader.End();
  if (answer.error != 0) return answer;
  answer.status = reader.GetStatus();
  if (const auto body = reader.TakeBody()) answer.body = body->FlattenChained();
  return answer;
}

// The same whatever the pieces.
Answer ReadAnyhow(const std::string& wire, const CAWHttpLimits& limits = {},
                  bool bodyless = false) {
  const Answer whole = Read(wire, wire.size() + 1, limits, bodyless);
  for (const std::size_t piece : {1, 2, 3, 7, 100})
    EXPECT_EQ(Read(wire, piece, limits, bodyless), whole) << "in pieces of " << piece;
  return whole;
}

Answer Good(int status, const std::string& body, bool whole = true) {
  return {0, whole, status, body};
}

std::string Gzip(const std::string& text) {
  z_stream stream{};
  EXPECT_EQ(::deflateInit2(&stream, 9, Z_DEFLATED, MAX_WBITS + 16, 8, Z_DEFAULT_STRATEGY), Z_OK);
  std::string out(::deflateBound(&stream, text.size()) + 64, '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(::deflate(&stream, Z_FINISH), Z_STREAM_END);
  out.resize(stream.total_out);
  ::deflateEnd(&stream);
  return out;
}

std::string WithLength(const std::string& body, const std::string& more = "") {
  return "HTTP/1.1 200 OK\r\n" + more + "Content-Length: " + std::to_string(body.size()) +
         "\r\n\r\n" + body;
}

std::string Chunked(const std::string& chunks, const std::string& more = "") {
  return "HTTP/1.1 200 OK\r\n" + more + "Transfer-Encoding: chunked\r\n\r\n" + chunks;
}

// --- how long it is ---

TEST(AnswerLength, ContentLengthSaysWhereItEnds) {
  EXPECT_EQ(ReadAnyhow(WithLength("hello")), Good(200, "hello"));
  EXPECT_EQ(ReadAnyhow(WithLength("")), Good(200, ""));
  EXPECT_EQ(ReadAnyhow("HTTP/1.1 404 \r\nContent-Length: 2\r\n\r\nno"), Good(404, "no"));
}

TEST(AnswerLength, WithoutALengthItEndsWithTheConnection) {
  EXPECT_EQ(ReadAnyhow("HTTP/1.0 200 OK\r\n\r\nhello"), Good(200, "hello", false));
  EXPECT_EQ(ReadAnyhow("HTTP/1.1 200 OK\r\n\r\n"), Good(200, "", false));
}

TEST(AnswerLength, ChunksEndWithTheEmptyOne) {
  EXPECT_EQ(ReadAnyhow(Chunked("5\r\nhello\r\n0\r\n\r\n")), Good(200, "hello"));
  EXPECT_EQ(ReadAnyhow(Chunked("5;x=y;z=\"q\"\r\nhello\r\nA\r\n, you over\r\n00\r\n\r\n")),
            Good(200, "hello, you over"));
  EXPECT_EQ(ReadAnyhow(Chunked("0\r\n\r\n")), Good(200, ""));
  EXPECT_EQ(ReadAnyhow(Chunked("1\r\nx\r\n0\r\nChecked: yes\r\nMore: so\r\n\r\n")), Good(200, "x"));
}

TEST(AnswerLength, HeadersEndMayComeByItself) {
  AnswerReader reader({}, false);
  EXPECT_EQ(reader.Add("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r"), 0);
  EXPECT_FALSE(reader.IsWhole());
  EXPECT_EQ(reader.Add("\n"), 0);
  EXPECT_TRUE(reader.IsWhole());
}

TEST(AnswerLength, SomeStatusesAndMethodsHaveNoBody) {
  EXPECT_EQ(ReadAnyhow("HTTP/1.1 204 No Content\r\n\r\n"), Good(204, ""));
  EXPECT_EQ(ReadAnyhow("HTTP/1.1 304 Not Modified\r\nContent-Length: 5\r\n\r\n"), Good(304, ""));
  EXPECT_EQ(ReadAnyhow("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n", {}, true), Good(200, ""));
}

TEST(AnswerLength, WhatComesBehindTheAnswerIsIgnored) {
  EXPECT_EQ(Read(WithLength("hello") + "HTTP/1.1 500 No\r\n\r\n", 1000), Good(200, "hello"));
}

TEST(AnswerLength, AnswersThatAnnounceOneAreSkipped) {
  const std::string interim = "HTTP/1.1 100 Continue\r\n\r\n";
  EXPECT_EQ(ReadAnyhow(interim + WithLength("hello")), Good(200, "hello"));
  EXPECT_EQ(ReadAnyhow(interim + "HTTP/1.1 103 Early Hints\r\nLink: x\r\n\r\n" + interim +
                       Chunked("1\r\nx\r\n0\r\n\r\n")),
            Good(200, "x"));
  EXPECT_EQ(ReadAnyhow(interim + "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n", {}, true),
            Good(200, ""));
  EXPECT_EQ(ReadAnyhow(interim + "HTTP/1.1 417 No\r\n\r\nnot so", {}), Good(417, "not so", false));
}

// --- what is cut ---

TEST(AnswerEnd, CutAnswersAreNotWhole) {
  for (const std::string& wire :
       {std::string(), std::string("H"), std::string("HTTP/1.1 200 OK"),
        std::string("HTTP/1.1 200 OK\r\nContent-Le"), std::string("HTTP/1.1 200 OK\r\n"),
        std::string("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhell"),
        std::string("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n"),
        std::string("HTTP/1.1 100 Continue\r\n\r\n"),
        std::string("HTTP/1.1 100 Continue\r\n\r\nHTTP"), Chunked(""), Chunked("5"),
        Chunked("5\r\n"), Chunked("5\r\nhell"), Chunked("5\r\nhello"), Chunked("5\r\nhello\r\n"),
        Chunked("5\r\nhello\r\n0\r\n"), Chunked("5\r\nhello\r\n0\r\nA: b\r\n")}) {
    const Answer answer = ReadAnyhow(wire);
    EXPECT_EQ(answer.error, ECONNABORTED) << wire;
    EXPECT_FALSE(answer.whole);
  }
}

// --- what is no answer ---

TEST(AnswerGarbage, IsRefused) {
  for (const std::string& wire : {
           std::string("garbage\r\n\r\n"),
           std::string("\r\n\r\n\r\n\r\n\r\n\r\n\r\n\r\n"),
           std::string(20, '\0'),
           std::string("HTTP/2.0 200 OK\r\n\r\n"),
           std::string("HTTP/0.9 200 OK\r\n\r\n"),
           std::string("HTTP/1.1 20 OK\r\n\r\n"),
           std::string("HTTP/1.1 2000 OK\r\n\r\n"),
           std::string("HTTP/1.1 099 OK\r\n\r\n"),
           std::string("HTTP/1.1 -20 OK\r\n\r\n"),
           std::string("HTTP/1.1 101 Switching Protocols\r\nUpgrade: x\r\n\r\n"),
           std::string("GET / HTTP/1.1\r\n\r\n"),
           std::string("HTTP/1.1 200 OK\nContent-Length: 0\n\n"),
           std::string("HTTP/1.1 200 OK\r\nNo colon\r\n\r\n"),
           std::string("HTTP/1.1 200 OK\r\nBad\x01Name: x\r\n\r\n"),
           std::string("HTTP/1.1 200 OK\r\nContent-Length: -1\r\n\r\n"),
           std::string("HTTP/1.1 200 OK\r\nContent-Length: 1x\r\n\r\n"),
           std::string("HTTP/1.1 200 OK\r\nContent-Length: 99999999999999999999\r\n\r\n"),
           std::string("HTTP/1.1 200 OK\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\nxx"),
           std::string("HTTP/1.1 200 OK\r\nContent-Length: 1\r\n"
                       "Transfer-Encoding: chunked\r\n\r\n1\r\nx\r\n0\r\n\r\n"),
           Chunked("x\r\n"),
           Chunked("-1\r\nx\r\n"),
           Chunked("1\r\nxy\r\n0\r\n\r\n"),
           Chunked("11111111111111111\r\n"),
           Chunked("1\r\nx\r\n0\r\nno colon\r\n\r\n"),
       }) {
    EXPECT_EQ(Read(wire, wire.size()).error, EPROTO) << wire;
    // Lines are looked at once all of them are there.
    for (const std::size_t piece : {1, 2, 3, 7}) {
      const int error = Read(wire, piece).error;
      EXPECT_TRUE(error == EPROTO || error == ECONNABORTED) << error << ": " << wire;
    }
  }
}

TEST(AnswerGarbage, QuotedTextThatDoesNotEndInTheLineOfItsChunkIsRefusedAtOnce) {
  for (const std::string& wire :
       {Chunked("1;a=\"\r\n"), Chunked("1;a=\"\\\"\r\n"), Chunked("1\r\nx\r\n10;a=\"\r\n"),
        Chunked("0;a=\"\r\n\r\n"), Chunked("1\r\nx\r\n00;a=\"\r\nA: b\r\n\r\n")}) {
    EXPECT_EQ(ReadAnyhow(wire).error, EPROTO) << wire;
    EXPECT_EQ(ReadAnyhow(wire + "x\"\r\n").error, EPROTO) << wire;
  }
  EXPECT_EQ(ReadAnyhow(Chunked("5;a=\"\\\";\"\r\nhello\r\n0;a=\"\"\r\nA: \"\r\n\r\n")),
            Good(200, "hello"));
}

TEST(AnswerCoding, UnknownCodingsAreRefused) {
  for (const std::string coding : {"br", "deflate", "gzip, gzip", "gzip, br"})
    EXPECT_EQ(ReadAnyhow(WithLength("x", "Content-Encoding: " + coding + "\r\n")).error, ENOTSUP);
  EXPECT_EQ(
      ReadAnyhow(WithLength("x", "Content-Encoding: gzip\r\nContent-Encoding: gzip\r\n")).error,
      ENOTSUP);
  for (const std::string coding : {"gzip, chunked", "gzip", "chunked, gzip", "identity"})
    EXPECT_EQ(ReadAnyhow("HTTP/1.1 200 OK\r\nTransfer-Encoding: " + coding + "\r\n\r\n").error,
              ENOTSUP);
}

// --- gzip ---

TEST(AnswerGzip, IsUndone) {
  std::string text = "hello";
  for (int i = 0; i < 3000; ++i) text += std::to_string(i * i);
  const std::string packed = Gzip(text);
  EXPECT_EQ(ReadAnyhow(WithLength(packed, "Content-Encoding: gzip\r\n")), Good(200, text));
  EXPECT_EQ(ReadAnyhow(WithLength(packed, "content-encoding: X-GZIP\r\n")), Good(200, text));
  EXPECT_EQ(ReadAnyhow("HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\n\r\n" + packed),
            Good(200, text, false));
  char size[20];
  std::snprintf(size, sizeof size, "%zx\r\n", packed.size());
  EXPECT_EQ(ReadAnyhow(Chunked(size + packed + "\r\n0\r\n\r\n", "Content-Encoding: gzip\r\n")),
            Good(200, text));
}

TEST(AnswerGzip, OneFileMayFollowAnother) {
  const std::string packed = Gzip("hello, ") + Gzip("") + Gzip("world");
  EXPECT_EQ(ReadAnyhow(WithLength(packed, "Content-Encoding: gzip\r\n")),
            Good(200, "hello, world"));
}

TEST(AnswerGzip, EmptyBodyIsEmpty) {
  EXPECT_EQ(ReadAnyhow(WithLength("", "Content-Encoding: gzip\r\n")), Good(200, ""));
  EXPECT_EQ(ReadAnyhow("HTTP/1.1 204 No\r\nContent-Encoding: gzip\r\n\r\n"), Good(204, ""));
  EXPECT_EQ(ReadAnyhow(WithLength(Gzip(""), "Content-Encoding: gzip\r\n")), Good(200, ""));
}

TEST(AnswerGzip, DamagedAndCutOnesAreRefused) {
  const std::string packed = Gzip("hello, world, hello, world");
  std::string damaged = packed;
  damaged[packed.size() - 6] = static_cast<char>(damaged[packed.size() - 6] ^ 1);
  const std::string field = "Content-Encoding: gzip\r\n";
  EXPECT_EQ(ReadAnyhow(WithLength(damaged, field)).error, EPROTO);
  EXPECT_EQ(ReadAnyhow(WithLength("plain text", field)).error, EPROTO);
  EXPECT_EQ(ReadAnyhow(WithLength(packed + "behind it", field)).error, EPROTO);
  EXPECT_EQ(ReadAnyhow(WithLength(packed.substr(0, packed.size() - 1), field)).error, EPROTO);
  EXPECT_EQ(ReadAnyhow("HTTP/1.1 200 OK\r\n" + field + "\r\n" + packed.substr(0, packed.size() - 1))
                .error,
            EPROTO);
}

// --- limits ---

CAWHttpLimits BodyOf(std::size_t bytes) {
  CAWHttpLimits limits;
  limits.bodyBytes = bytes;
  return limits;
}

TEST(AnswerLimit, BodyOfJustThatIsTakenAndAByteMoreIsNot) {
  const std::string just(1000, 'x');
  const std::string more(1001, 'x');
  const std::string gzip = "Content-Encoding: gzip\r\n";
  const auto chunks = [](const std::string& text) {
    return "1\r\n" + text.substr(0, 1) + "\r\n3e7\r\n" + text.substr(1, 999) +
           (text.size() > 1000 ? "\r\n1\r\n" + text.substr(1000) : "") + "\r\n0\r\n\r\n";
  };
  const CAWHttpLimits limits = BodyOf(1000);
  EXPECT_EQ(ReadAnyhow(WithLength(just), limits), Good(200, just));
  EXPECT_EQ(ReadAnyhow(WithLength(more), limits).error, EMSGSIZE);
  EXPECT_EQ(ReadAnyhow(Chunked(chunks(just)), limits), Good(200, just));
  EXPECT_EQ(ReadAnyhow(Chunked(chunks(more)), limits).error, EMSGSIZE);
  EXPECT_EQ(ReadAnyhow("HTTP/1.1 200 OK\r\n\r\n" + just, limits), Good(200, just, false));
  EXPECT_EQ(ReadAnyhow("HTTP/1.1 200 OK\r\n\r\n" + more, limits).error, EMSGSIZE);
  EXPECT_EQ(ReadAnyhow(WithLength(Gzip(just), gzip), limits), Good(200, just));
  EXPECT_EQ(ReadAnyhow(WithLength(Gzip(more), gzip), limits).error, EMSGSIZE);
}

TEST(AnswerLimit, LengthThatIsTooMuchIsRefusedBeforeTheBodyComes) {
  AnswerReader reader(BodyOf(1000), false);
  EXPECT_EQ(reader.Add("HTTP/1.1 200 OK\r\nContent-Length: 1001\r\n\r\n"), EMSGSIZE);
}

TEST(AnswerLimit, PackedBytesThatDoNotShrinkCountOnceUnpacked) {
  std::string text(1000, '\0');
  unsigned seed = 1;
  std::generate(text.begin(), text.end(),
                [&] { return static_cast<char>((seed = seed * 1664525 + 1013904223) >> 24); });
  ASSERT_GT(Gzip(text).size(), 1000U);
  EXPECT_EQ(ReadAnyhow(WithLength(Gzip(text), "Content-Encoding: gzip\r\n"), BodyOf(1000)),
            Good(200, text));
}

TEST(AnswerLimit, HeaderLinesCountTogetherAlsoThoseOfInterimAnswersAndTrailers) {
  CAWHttpLimits limits;
  limits.headerBytes = 1000;
  const std::string line = "X: " + std::string(200, 'x') + "\r\n";
  const std::string three = line + line + line;
  const std::string start = "HTTP/1.1 200 OK\r\n";
  EXPECT_EQ(ReadAnyhow(start + three + "\r\nbody", limits), Good(200, "body", false));
  EXPECT_EQ(ReadAnyhow(start + three + three + "\r\nbody", limits).error, EMSGSIZE);
  EXPECT_EQ(ReadAnyhow(start + three + three + three, limits).error, EMSGSIZE);
  EXPECT_EQ(
      ReadAnyhow("HTTP/1.1 100 Continue\r\n" + three + "\r\n" + start + three + "\r\n", limits)
          .error,
      EMSGSIZE);
  EXPECT_EQ(ReadAnyhow(Chunked("1\r\nx\r\n0\r\n" + three + three + "\r\n"), limits).error,
            EMSGSIZE);
  EXPECT_EQ(ReadAnyhow("HTTP/1.1 200 " + std::string(1001, 'r') + "\r\n\r\n", limits).error,
            EMSGSIZE);
}

TEST(AnswerLimit, HeaderCountsAsItIsSentHoweverItIsCut) {
  const std::string header = "HTTP/1.1 200 OK\r\nX:   y   \r\nContent-Length: 5\r\n\r\n";
  CAWHttpLimits limits;
  limits.headerBytes = header.size();
  EXPECT_EQ(ReadAnyhow(header + "hello", limits), Good(200, "hello"));
  --limits.headerBytes;
  EXPECT_EQ(ReadAnyhow(header + "hello", limits).error, EMSGSIZE);
}

TEST(AnswerLimit, HeaderOfAChunkIsNoHeaderLineHoweverItIsCut) {
  const std::string extension = ";" + std::string(1020, 'e') + "\r\n";
  const std::string chunks = "5" + extension + "hello\r\n1" + extension + "!\r\n0" + extension;
  for (const std::string trailer : {"", "Checked: yes\r\n"}) {
    CAWHttpLimits limits;
    limits.headerBytes = Chunked(trailer).size();
    EXPECT_EQ(ReadAnyhow(Chunked(chunks + trailer + "\r\n"), limits), Good(200, "hello!"));
    --limits.headerBytes;
    EXPECT_EQ(ReadAnyhow(Chunked(chunks + trailer + "\r\n"), limits).error, EMSGSIZE);
  }
}

TEST(AnswerLimit, TrailersCountAsTheyAreSentHoweverTheyAreCut) {
  const std::string start = "0;last\r\n";
  const std::string trailers = "X:" + std::string(3000, ' ') + "y\r\nZ:z\r\n";
  CAWHttpLimits limits;
  limits.headerBytes = Chunked(trailers).size();
  EXPECT_EQ(ReadAnyhow(Chunked(start + trailers + "\r\n"), limits), Good(200, ""));
  --limits.headerBytes;
  EXPECT_EQ(ReadAnyhow(Chunked(start + trailers + "\r\n"), limits).error, EMSGSIZE);
}

TEST(AnswerLimit, HeaderOfAChunkHasAKibibyte) {
  const std::string chunk = "\r\nhello\r\n";
  const std::string fits = "5;" + std::string(1022, 'e');
  EXPECT_EQ(ReadAnyhow(Chunked(fits + chunk + "0\r\n\r\n")), Good(200, "hello"));
  EXPECT_EQ(ReadAnyhow(Chunked(fits + "e" + chunk + "0\r\n\r\n")).error, EMSGSIZE);
  const std::string zeros(1100, '0');
  EXPECT_EQ(ReadAnyhow(Chunked(zeros)).error, EMSGSIZE);
  EXPECT_EQ(ReadAnyhow(Chunked(zeros + "5" + chunk + "0\r\n\r\n")).error, EMSGSIZE);
  EXPECT_EQ(ReadAnyhow(Chunked("5" + chunk + zeros + "\r\n\r\n")).error, EMSGSIZE);
  EXPECT_EQ(ReadAnyhow(Chunked("0;" + zeros + "\r\nA: b\r\n\r\n")).error, EMSGSIZE);
}

TEST(AnswerLimit, LargestNumberOfBytesIsNoLimit) {
  CAWHttpLimits limits;
  limits.headerBytes = std::numeric_limits<std::size_t>::max();
  limits.bodyBytes = limits.headerBytes;
  EXPECT_EQ(ReadAnyhow("HTTP/1.1 100 Continue\r\n\r\n" + WithLength("hello"), limits),
            Good(200, "hello"));
  EXPECT_EQ(ReadAnyhow(Chunked("5\r\nhello\r\n0\r\nA: b\r\n\r\n"), limits), Good(200, "hello"));
}

TEST(AnswerLimit, InterimAnswersWithoutEndAreRefused) {
  std::string wire;
  for (int i = 0; i < 100000; ++i) wire += "HTTP/1.1 100 \r\n\r\n";
  EXPECT_EQ(Read(wire, 65535).error, EMSGSIZE);
}

}  // namespace
}  // namespace zarn::test

// HttpClient_test.cpp - a request and its answer, and what a client or a channel refuses to do.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "HttpUser.h"

namespace zarn::test {
namespace {

TEST_F(HttpClient, SendsARequestAndBringsItsAnswerOnce) {
  Send();
  EXPECT_EQ(tcp.Last().peer, keelbase::CAWInetAddr("127.0.0.1", 8080));
  EXPECT_EQ(user.calls, Calls{"connect 0"});
  EXPECT_EQ(user.setResult, AW_OK);
  EXPECT_EQ(user.sendResult, AW_OK);
  EXPECT_EQ(user.bytesLeft, 0U);
  EXPECT_EQ(transport->wire.find("POST /a HTTP/1.1\r\nHost: 127.0.0.1:8080\r\n"), 0U);
  EXPECT_EQ(transport->wire.substr(transport->wire.size() - 6), "\r\n\r\n{}");
  long result = 77;
  EXPECT_EQ(user.channel->GetResult(result), AW_ERROR_NOT_AVAILABLE);
  EXPECT_EQ(result, 77);

  Answer(kAnswer);
  EXPECT_EQ(user.calls, kAnswered);
  EXPECT_EQ(user.answer, "hello");
  EXPECT_EQ(user.result, 200);
  EXPECT_EQ(transport->disconnects, std::vector<long>{0});
  EXPECT_EQ(transport->GetReferences(), 1U);
  clock.Advance(std::chrono::hours(1));
  EXPECT_EQ(user.calls, kAnswered);
}

TEST_F(HttpClient, HeadAndBodyAreOfferedTogetherWithoutACopy) {
  Send();
  ASSERT_EQ(transport->segments.size(), 2U);
  EXPECT_EQ(transport->segments[1].data, user.body.data());
}

TEST_F(HttpClient, WhatTheConnectionDoesNotTakeFollowsWhenThereIsRoom) {
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 10);
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 3);
  user.body = std::string(100, 'b');
  Send();
  EXPECT_EQ(user.bytesLeft, 0U);
  user.body.assign(100, 'x');  // was copied
  EXPECT_EQ(transport->wire.size(), 10U);
  transport->ReadyToSend();
  EXPECT_EQ(transport->wire.size(), 13U);
  transport->ReadyToSend();
  EXPECT_EQ(transport->wire.substr(transport->wire.size() - 100), std::string(100, 'b'));
  Answer(kAnswer);
  EXPECT_EQ(user.result, 200);
}

TEST_F(HttpClient, AnswerMayComeBeforeTheRequestIsSent) {
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 10);
  Send();
  Answer("HTTP/1.1 413 Too much\r\nContent-Length: 0\r\n\r\n");
  EXPECT_EQ(user.calls, kAnswered);
  EXPECT_EQ(user.result, 413);
}

TEST_F(HttpClient, AnswerInPiecesAndWithoutLengthEndsWithTheConnection) {
  Send();
  for (const char* piece : {"HTTP/1.1 201 Cre", "ated\r\n\r\nhe", "llo"}) Answer(piece);
  EXPECT_EQ(user.calls, Calls{"connect 0"});
  transport->End(0);
  EXPECT_EQ(user.calls, kAnswered);
  EXPECT_EQ(user.answer, "hello");
  EXPECT_EQ(user.result, 201);
}

TEST_F(HttpClient, AnswerToHeadHasNoBody) {
  user.setting = "HEAD";
  user.body.clear();
  Send();
  Answer("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n");
  EXPECT_EQ(user.result, 200);
}

TEST_F(HttpClient, LastSettingCountsAndNoneIsAPost) {
  user.onConnect = [this](IAWChannelHttpClient* channel) {
    user.channel = channel;
    channel->OpenWithSink(&user);
    EXPECT_EQ(channel->SetRequest("Host: x"), AW_ERROR_FAILURE);
    EXPECT_EQ(channel->SetRequest("DELETE\nX: 1"), AW_OK);
    EXPECT_EQ(channel->SetRequest(""), AW_OK);
    EXPECT_EQ(user.Send(""), AW_OK);
  };
  Send();
  EXPECT_EQ(transport->wire.find("POST "), 0U);
  EXPECT_EQ(transport->wire.find("X: 1"), std::string::npos);
}

TEST_F(HttpClient, OptionsAreThoseOfTheConnection) {
  transport->peer = keelbase::CAWInetAddr("127.0.0.1", 8080);
  Send();
  keelbase::CAWInetAddr peer;
  EXPECT_EQ(user.channel->GetOption(keelbase::AW_OPT_PEER_ADDRESS, &peer), AW_OK);
  EXPECT_EQ(peer, transport->peer);
  Answer(kAnswer);
  EXPECT_EQ(user.channel->GetOption(keelbase::AW_OPT_PEER_ADDRESS, &peer), AW_ERROR_FAILURE);
  EXPECT_EQ(user.channel->SetOption(keelbase::AW_OPT_LINGER, &peer), AW_ERROR_FAILURE);
}

// --- misuse ---

TEST_F(HttpClient, ChannelServesOneRequest) {
  Send();
  EXPECT_EQ(user.Send("again"), AW_ERROR_FAILURE);
  EXPECT_EQ(user.channel->OpenWithSink(&user), AW_ERROR_FAILURE);
  Answer(kAnswer);
  EXPECT_EQ(user.Send("again"), AW_ERROR_NOT_INITIALIZED);
  EXPECT_EQ(user.channel->OpenWithSink(&user), AW_ERROR_FAILURE);
  EXPECT_EQ(user.calls, kAnswered);
}

TEST_F(HttpClient, ChannelIsOpenedBeforeItSends) {
  user.onConnect = [this](IAWChannelHttpClient* channel) {
    user.channel = channel;
    EXPECT_EQ(user.Send("{}"), AW_ERROR_FAILURE);
    EXPECT_EQ(channel->OpenWithSink(nullptr), AW_ERROR_FAILURE);
  };
  Send();
  EXPECT_EQ(transport->wire, "");
}

TEST_F(HttpClient, NullSinkIsRefused) {
  EXPECT_EQ(client->Open("http://127.0.0.1/", nullptr, 0), AW_ERROR_FAILURE);
  RunReady();
  EXPECT_EQ(tcp.requests, 0);
}

TEST_F(HttpClient, ChannelThatNobodyTakesIsClosed) {
  user.onConnect = [](IAWChannelHttpClient*) {};
  Send();
  EXPECT_EQ(transport->disconnects, std::vector<long>{0});
  EXPECT_EQ(transport->GetReferences(), 1U);
}

}  // namespace
}  // namespace zarn::test

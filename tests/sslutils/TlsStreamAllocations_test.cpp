// TlsStreamAllocations_test.cpp - TLS engines that find no memory for what they would have to keep.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <utility>

#include "Exhaustion.h"
#include "TlsStreamPair.h"

namespace sslutils::internal {
namespace {

using zarn::test::Exhaustion;

TEST(TlsStreamAllocations, BytesBeforeOpenThatCannotBeKeptEndTheConnectionOnceItIsOpen) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.StartBoth();
    pair.client.stream->Open(&pair.client.sink);
    TlsPair::Send(pair.client, "early");
    pair.loop.RunReady();
    const std::string bytes = std::exchange(pair.client.end.sent, {});
    CAWMessageBlock block(bytes.data(), bytes.size(), CAWMessageBlock::borrow);
    {
      const Exhaustion none;
      pair.server_.end.sink->OnBytes(block);
    }
    EXPECT_EQ(pair.server_.stream->Open(&pair.server_.sink), AW_OK);
    pair.Move();
    EXPECT_TRUE(pair.server_.sink.received.empty());
    EXPECT_EQ(pair.server_.sink.ends, 1);
    EXPECT_EQ(pair.server_.sink.reason, ENOMEM);
  });
}

TEST(TlsStreamAllocations, RecordThatMustWaitAndCannotBeKeptEndsTheConnection) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Open();
    pair.client.end.room = 0;
    const std::string all = Pattern(20000);
    AWResult result = AW_OK;
    {
      const Exhaustion none;
      result = TlsPair::Send(pair.client, all);
    }
    EXPECT_EQ(result, static_cast<AWResult>(ENOMEM));
    EXPECT_EQ(pair.client.sink.ends, 0);  // never from inside Send
    pair.Move();
    EXPECT_EQ(pair.client.sink.ends, 1);
    EXPECT_EQ(pair.client.sink.reason, ENOMEM);
    EXPECT_TRUE(pair.server_.sink.received.empty());
  });
}

TEST(TlsStreamAllocations, QuestionForWhatWasAgreedOnIsAnsweredWithACode) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Open();
    CAWSSLInfo info;
    AWResult result = AW_OK;
    {
      const Exhaustion none;
      result = pair.client.stream->GetOption(AW_OPT_SSL_INFO, &info);
    }
    EXPECT_EQ(result, AW_ERROR_FAILURE);
    EXPECT_TRUE(info.protocol.empty());
    EXPECT_EQ(pair.client.stream->GetOption(AW_OPT_SSL_INFO, &info), AW_OK);
    EXPECT_EQ(info.protocol, "TLSv1.3");
  });
}

TEST(TlsStreamAllocations, BytesForTheLingerThatCannotBeKeptAreRefused) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Open();
    const std::string text = "last words";
    CAWMessageBlock block(text.data(), text.size(), CAWMessageBlock::borrow);
    AWResult result = AW_OK;
    {
      const Exhaustion none;
      result = pair.client.stream->SetOption(keelbase::AW_OPT_LINGER_DATA, &block);
    }
    EXPECT_EQ(result, AW_ERROR_FAILURE);
    EXPECT_EQ(pair.client.stream->SetOption(keelbase::AW_OPT_LINGER_DATA, &block), AW_OK);
    pair.client.stream->Disconnect();
    pair.Move();
    EXPECT_EQ(pair.server_.sink.received, text);
    EXPECT_EQ(pair.server_.sink.reason, 0);
  });
}

}  // namespace
}  // namespace sslutils::internal

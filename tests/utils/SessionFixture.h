// SessionFixture.h - a session over TCP, TLS or TLS over pseudo-TCP, and its world. A test whose
// rule holds for each of them runs over all `SessionWorlds`.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "RecordingStream.h"

namespace zarn::test {

using SessionWorlds = ::testing::Types<OverTcp, OverTls, OverSslPtcp>;
using TlsSessionWorlds = ::testing::Types<OverTls, OverSslPtcp>;

template <class World>
struct SessionFixture : StreamFixture<World> {
  using typename StreamFixture<World>::Transport;

  // A connection with "queued" in the send queue and "half" received.
  Transport ConnectWithFullBuffers() {
    Transport transport = this->ConnectFully();
    transport->AnswerNext(keelbase::AW_ERROR_PARTIAL_DATA, 0);
    this->Send("queued");
    transport->Receive("half");
    return transport;
  }

  void ExpectEmptyBuffers() {
    EXPECT_EQ(this->stream->GetSendQueueLength(), 0U);
    auto fresh = this->Attach();
    EXPECT_EQ(this->Send("new"), keelbase::AW_OK);
    EXPECT_EQ(fresh->wire, "new");
    fresh->Receive("whole;");
    EXPECT_EQ(this->stream->frames, std::vector<std::string>{"whole"});
  }
};

}  // namespace zarn::test

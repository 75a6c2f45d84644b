// FramedSession.h - a session class of zarnutils made a channel: the frame of the channels over it.
#pragma once

#include "Bench.h"
#include "FrameCodec.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWMessageBlock.h"
#include "sslutils/CAWSSLError.h"

namespace bench {

template <class Session>
class FramedSession : public Session {
 public:
  keelbase::AWResult SendZARNMessage(std::uint16_t type, std::uint32_t tag, const char* data,
                                     std::size_t size) {
    const auto header = zarn::utils::EncodeFrameHeader(type, tag, size);
    keelbase::CAWMessageBlock frame(header.data(), header.size(),
                                    keelbase::CAWMessageBlock::borrow);
    keelbase::CAWMessageBlock payload(data, size, keelbase::CAWMessageBlock::borrow);
    const keelbase::CAWMessageBlock::LinkForCall link(frame, payload);
    return this->SendMsg(frame);
  }
  std::size_t HandleMessage(const char* data, std::size_t len) override {
    const zarn::utils::Frame frame = zarn::utils::DecodeFrame(data, len);
    if (frame.result != zarn::utils::FrameResult::kFrame) return 0;
    OnZARNMessage(frame.type, frame.tag, frame.payload, frame.datasize);
    return frame.pdulen;
  }
  virtual void OnZARNMessage(std::uint16_t type, std::uint32_t tag, const char* data,
                             std::size_t size) = 0;
  int OnConnected(long) override { return 0; }
  void OnPeerDisconnect(long reason) override {
    if (reason != 0) Fail("connection: " + sslutils::DescribeSSLResult(reason));
  }
  void OnRcvBufferOverFlow(std::uint32_t) override {}
};

}  // namespace bench

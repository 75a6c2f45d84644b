// CAWHttpChannel.h - one HTTP request and its answer: the channel and its sink.
#pragma once

#include "keelbase/CAWError.h"
#include "keelbase/CAWString.h"
#include "shttp/CAWDefines.h"
#include "wface/CAWTransport.h"

namespace shttp {

// What comes of IAWHttpClient::Open. It serves one request:
//
//   void OnConnect(long, shttp::IAWChannelHttpClient* channel) override {
//     channel_ = channel;                     // keep it, else it is closed after this call
//     channel->OpenWithSink(this);
//     channel->SetRequest("PUT\nContent-Type: text/plain");
//     channel->SendData(body, nullptr);
//   }
//   void OnReceive(keelbase::CAWMessageBlock& answer, wface::IAWTransport*, ...) override {
//     long result = 0;
//     channel_->GetResult(result);            // the status, or below 0
//   }
//
// Once it is opened, its sink hears exactly once by OnReceive, unless the channel is disconnected
// or let go before: either the whole body of the answer, with chunks and gzip undone, or an empty
// block for a failure. OnDisconnect(0) follows unless OnReceive has disconnected. The block is the
// sink's to take apart; OnSend never comes.
//
// Threads: as IAWTransport, on the network thread; Disconnect may be called on any. On another
// thread it waits for nobody, nor does the last release by a thread that has a loop: a callback may
// still begin or end a moment later; to be sure, do it in a Call on the network thread.
// Ownership: counted (CAWAutoPtr). It stays alive through its own callbacks. Letting go of the last
// reference is a Disconnect; a thread that has no loop waits for a callback that is just running,
// and none begins after that.
class SHTTP_API IAWChannelHttpClient : public wface::IAWTransport {
 public:
  // What to ask for: lines, separated by '\n'. The first may be the method, in capital letters; it
  // is POST without one. All others are header fields, "Name: value". An empty setting is
  // a POST; a body is application/json unless a Content-Type is named. 0; 10001 for anything else,
  // and then nothing is sent: the result is -EINVAL. Refused are control characters, CONNECT, what
  // is longer than 32 KiB, and the fields Host, Content-Length, Transfer-Encoding, Connection and
  // Upgrade, which are this library's. 10001 without memory, too, and the result is -ENOMEM. May be
  // called until SendData; the last one counts.
  virtual keelbase::AWResult SetRequest(const keelbase::CAWString& setting) = 0;

  // SendData is the request's body, whole; what the connection does not take at once is copied. 0;
  // 10001 before OpenWithSink, a second time, without memory, and for a refused setting, user name
  // or password; 10002 when the connect has failed or the channel is disconnected.

  // What became of the request, see CAWHttpResult.h. 0; 10012 as long as that is open.
  virtual keelbase::AWResult GetResult(long& result) = 0;

  // GetOption answers while there is a connection; SetOption knows no code.
};

class IAWChannelSink {
 public:
  // The connect has ended; `reason` is 0, or why it failed. There is a channel in either case: with
  // a reason it brings the failure, see IAWChannelHttpClient.
  virtual void OnConnect(long reason, IAWChannelHttpClient* channel) = 0;
  virtual ~IAWChannelSink() = default;
};

}  // namespace shttp

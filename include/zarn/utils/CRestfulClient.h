// CRestfulClient.h - sends one request to an HTTP server and brings its answer to a callback.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>

#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWEventQueue.h"
#include "keelbase/CAWMessageBlock.h"
#include "keelbase/CAWString.h"
#include "shttp/CAWHttpChannel.h"
#include "shttp/CAWHttpManager.h"
#include "wface/CAWTransport.h"
#include "zarn/utils/zarndefines.h"

namespace zarn::utils {

// Carries an answer to the main thread.
class ZARNUTILS_API CRestfulRcvEvent : public keelbase::IAWEvent {
 public:
  CRestfulRcvEvent(keelbase::CAWString response, long result,
                   std::function<void(const keelbase::CAWString&, long)> callback);
  keelbase::AWResult OnEventFire() override;  // calls the callback, if there is one; 0
  ~CRestfulRcvEvent() override;

 private:
  friend class CRestfulClient;

  keelbase::CAWString response_;
  long result_;
  std::function<void(const keelbase::CAWString&, long)> callback_;
};

// One request at a time, over http or https. Urls must contain "/zarn/tcpchannel":
//
//   auto* manager = keelbase::CAWThreadManager::Instance();
//   if (manager->AdoptCurrentThread(keelbase::CAWThreadManager::TT_MAIN) != 0) return 1;
//   auto* main = manager->GetThread(keelbase::CAWThreadManager::TT_MAIN);
//   zarn::utils::CRestfulClient client;
//   client.StartClient("http://127.0.0.1:8080/zarn/tcpchannel/orders", "", R"({"id": 7})",
//                      [&](const keelbase::CAWString& answer, long result) { main->Stop(); });
//   main->Run();
//
// What a setting can say is told with shttp::IAWChannelHttpClient::SetRequest, results in
// shttp/CAWHttpResult.h: the server's status, or below 0. Limits of time and size are those of
// shttp::IAWHttpManager. docs/rest.md has all of it on one page.
//
// Threads: the request is carried out on the network thread, where On… come; the callback runs on
// the main thread (CAWThreadManager::TT_MAIN), through its queue. When nobody has adopted that
// thread the answer is dropped, and a trace line says so once. StartClient and SetRestfulInfo are
// called by one thread at a time.
//
// Lifetime: while an answer may still come the client must not be destroyed on any other thread
// than the network thread. So: destroy it in its callback or later, or drop a request with
//   network->Call([&] { client.reset(); });
// The callback itself outlives the client once the answer is on its way.
class ZARNUTILS_API CRestfulClient : public shttp::IAWChannelSink, public wface::IAWTransportSink {
 public:
  CRestfulClient() = default;
  CRestfulClient(const CRestfulClient&) = delete;
  CRestfulClient& operator=(const CRestfulClient&) = delete;

  // --- called by the platform on the network thread; for the destructor see Lifetime ---
  void OnConnect(long reason, shttp::IAWChannelHttpClient* channel) override;
  ~CRestfulClient() override;
  void OnReceive(keelbase::CAWMessageBlock& data, wface::IAWTransport* transport,
                 wface::CAWTransportParameter* parameter) override;
  void OnSend(wface::IAWTransport* transport, wface::CAWTransportParameter* parameter) override;
  void OnDisconnect(long reason, wface::IAWTransport* transport) override;

  // --- operations ---

  // Sends `body` to `url`; `callback` is called once, for a failure too, with the answer's body and
  // the result. A request that is under way is dropped first: its callback never runs (one whose
  // answer is on its way to the main thread is over, and does). Without "/zarn/tcpchannel" in `url`
  // the client of the call before serves again, and nothing happens when there was none, nor when
  // there is no memory or network thread for a new one: a trace line says so. To drop a
  // request it waits for the network thread, so it must not be called by somebody for whom that
  // thread waits then. May throw std::bad_alloc: the callback does not run then, and a request that
  // was under way goes on. What runs out of memory later ends with -ENOMEM.
  void StartClient(const keelbase::CAWString& url, const keelbase::CAWString& setting,
                   const keelbase::CAWString& body,
                   std::function<void(const keelbase::CAWString&, long)> callback);

  // User name and password for Basic authentication, for the requests that follow. Both must be
  // there to count; those that a client was given stay until others are, or until it is replaced.
  void SetRestfulInfo(const keelbase::CAWString& info1, const keelbase::CAWString& info2);

  // What OnConnect sends the body with; on the network thread. The channel's result, or 10002
  // without one.
  keelbase::AWResult SendData(const char* data, std::size_t len);

 private:
  void Open(const keelbase::CAWString& url);
  void ReleaseChannel();
  void Fail();
  void Tell();

  keelbase::CAWAutoPtr<shttp::IAWChannelHttpClient> channel_;
  keelbase::CAWAutoPtr<shttp::IAWHttpClient> client_;
  keelbase::CAWString response_;
  keelbase::CAWString info1_;
  keelbase::CAWString info2_;
  keelbase::CAWString setting_;
  keelbase::CAWString body_;
  long result_ = 0;
  std::function<void(const keelbase::CAWString&, long)> callback_;
  [[maybe_unused]] bool connected_ = false;  // no code reads it; debuggers show it
  std::atomic<bool> underWay_{false};        // callbacks of a request may come
  std::unique_ptr<CRestfulRcvEvent> event_;  // for the answer, which needs no memory then
};

}  // namespace zarn::utils

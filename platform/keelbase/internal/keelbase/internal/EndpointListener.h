// EndpointListener.h - listens at an endpoint file for the peers that may come.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "keelbase/CAWTransport.h"
#include "keelbase/internal/Clock.h"
#include "keelbase/internal/EndpointFile.h"
#include "keelbase/internal/StreamListener.h"

namespace keelbase::internal {

// Loop thread only.
class KEELBASE_API EndpointListener {
 public:
  // A connection of our own user or root (of anybody, where that is allowed). May stop or destroy
  // the listener.
  using OnAccepted = std::function<void(FileDescriptor, const CAWPeerCredentials&)>;
  // Start answered 0 because another process was just setting up an endpoint in that directory, and
  // then it failed, or the directory was still held after 10 seconds (EWOULDBLOCK); the listener
  // has stopped. May destroy it.
  using OnFailed = std::function<void(int error)>;

  EndpointListener(EventLoop& loop, OnAccepted accepted, OnFailed failed);
  ~EndpointListener() { Stop(); }
  EndpointListener(const EndpointListener&) = delete;
  EndpointListener& operator=(const EndpointListener&) = delete;

  void AllowAnyUser(bool allow) { allowAnyUser_ = allow; }
  void TakeDescriptors() { file_.TakeDescriptors(); }  // that peers pass along; before Start

  // 0: listening, or waiting for the directory. Else an errno value, and it has stopped.
  int Start(const std::string& path);
  void Stop();

 private:
  int Listen();
  void Retry();

  EventLoop& loop_;
  const OnAccepted accepted_;
  const OnFailed failed_;
  bool allowAnyUser_ = false;
  std::string path_;
  EndpointFile file_;
  std::optional<StreamListener> listener_;
  Timer retry_;  // while another process holds the directory
  Clock::Point giveUp_;
};

}  // namespace keelbase::internal

// FakeHttp.h - scripted stand-ins for HTTP: manager, clients and channels, without any connection.
#pragma once

#include <cstdint>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "FakeTransport.h"
#include "shttp/CAWHttpManager.h"

namespace zarn::test {

class FakeHttpChannel final : public FakeCounted<shttp::IAWChannelHttpClient> {
 public:
  explicit FakeHttpChannel(CallLog* log = nullptr) : FakeCounted(log) {}

  keelbase::AWResult sendResult = keelbase::AW_OK;
  long result = 200;

  std::string sent;
  const char* sentFrom = nullptr;
  std::vector<wface::CAWTransportParameter> parameters;

  void Receive(keelbase::CAWMessageBlock& block) {
    const keelbase::CAWAutoPtr<FakeHttpChannel> self(this);
    if (sink_ != nullptr) sink_->OnReceive(block, this, nullptr);
  }
  void Receive(const std::string& bytes) {
    keelbase::CAWMessageBlock block(bytes.data(), bytes.size(), keelbase::CAWMessageBlock::borrow);
    Receive(block);
  }
  void End(long reason) {
    const keelbase::CAWAutoPtr<FakeHttpChannel> self(this);
    if (auto* sink = std::exchange(sink_, nullptr)) sink->OnDisconnect(reason, this);
  }

  keelbase::AWResult OpenWithSink(wface::IAWTransportSink* sink) override {
    Note("open");
    sink_ = sink;
    return keelbase::AW_OK;
  }
  keelbase::AWResult SetRequest(const keelbase::CAWString& setting) override {
    Note("set " + setting);
    return keelbase::AW_OK;
  }
  keelbase::AWResult SendData(keelbase::CAWMessageBlock& data,
                              wface::CAWTransportParameter* parameter) override {
    Note("send");
    sentFrom = data.GetReadPtr();
    sent += data.FlattenChained();
    if (parameter != nullptr) parameters.push_back(*parameter);
    return sendResult;
  }
  keelbase::AWResult Disconnect(long reason) override {
    Note("disconnect " + std::to_string(reason));
    sink_ = nullptr;
    return keelbase::AW_OK;
  }
  keelbase::AWResult GetResult(long& out) override {
    Note("result");
    out = result;
    return keelbase::AW_OK;
  }
  keelbase::AWResult GetOption(int, void*) override { return keelbase::AW_ERROR_FAILURE; }
  keelbase::AWResult SetOption(int, void*) override { return keelbase::AW_ERROR_FAILURE; }

 private:
  wface::IAWTransportSink* sink_ = nullptr;
};

class FakeHttpClient final : public FakeCounted<shttp::IAWHttpClient> {
 public:
  explicit FakeHttpClient(CallLog* log) : FakeCounted(log) {}

  keelbase::AWResult openResult = keelbase::AW_OK;
  std::vector<std::pair<std::string, std::string>> infos;
  std::vector<std::string> urls;
  std::uint32_t reserved = 99;

  void Connect(long reason, FakeHttpChannel* channel) { sink_->OnConnect(reason, channel); }

  keelbase::AWResult SetInfo(const keelbase::CAWString& user,
                             const keelbase::CAWString& password) override {
    Note("info");
    infos.emplace_back(user, password);
    return keelbase::AW_OK;
  }
  keelbase::AWResult SetLimits(const shttp::CAWHttpLimits&) override { return keelbase::AW_OK; }
  keelbase::AWResult Open(const keelbase::CAWString& url, shttp::IAWChannelSink* sink,
                          std::uint32_t last) override {
    Note("open " + url);
    urls.push_back(url);
    sink_ = sink;
    reserved = last;
    return openResult;
  }

 private:
  shttp::IAWChannelSink* sink_ = nullptr;
};

// Stands in for the process's manager as long as it lives.
class FakeHttpManager final : public shttp::IAWHttpManager {
 public:
  explicit FakeHttpManager(CallLog* log = nullptr) : log_(log) { TEST_SetInstance(this); }
  ~FakeHttpManager() override { TEST_SetInstance(nullptr); }
  FakeHttpManager(const FakeHttpManager&) = delete;
  FakeHttpManager& operator=(const FakeHttpManager&) = delete;

  bool fails = false;
  keelbase::AWResult openResult = keelbase::AW_OK;  // of the clients made from now on
  std::vector<keelbase::CAWAutoPtr<FakeHttpClient>> clients;
  std::vector<std::thread::id> madeOn;  // of each client

  FakeHttpClient& Last() { return *clients.back(); }

  keelbase::AWResult CreateHttpClient(keelbase::CAWAutoPtr<shttp::IAWHttpClient>& out) override {
    out = nullptr;
    if (fails) return keelbase::AW_ERROR_FAILURE;
    clients.emplace_back(new FakeHttpClient(log_));
    Last().openResult = openResult;
    madeOn.push_back(std::this_thread::get_id());
    out = clients.back().Get();
    return keelbase::AW_OK;
  }
  void SetLimits(const shttp::CAWHttpLimits&) override {}

 private:
  CallLog* log_;
};

}  // namespace zarn::test

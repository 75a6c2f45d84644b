// bench_rest.cpp - requests to an HTTP server one after the other, each over a connection of its
// own.
//   bench_rest zarn|shttp|curl small|large URL [--seconds S] [--spin US]
// zarn: CRestfulClient, its callback on another thread than the network; shttp: the library below
// it, all on one thread; curl: libcurl's easy interface, which keeps the answer in a std::string.
// small: a POST of a little JSON to URL/small; large: a GET of URL/large, of 64 MiB.
// Prints {"us": of one request, "mb_per_s": of the answers, "peak_mb": what memory grew by, in MiB,
// at most while the first of them was served}.
#include <curl/curl.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <string>

#include "common/Bench.h"
#include "keelbase/CAWThreadManager.h"
#include "shttp/CAWHttpManager.h"
#include "zarn/utils/CRestfulClient.h"

namespace {

using bench::Fail;
using bench::Now;
using keelbase::CAWMessageBlock;
using keelbase::CAWThread;
using keelbase::CAWThreadManager;

constexpr std::size_t kLarge = std::size_t{64} << 20;
constexpr const char* kJson = R"({"id": 7})";

struct Plan {
  std::string who;
  std::string url;
  bool large = false;
  double seconds = 1;
  unsigned spin = 0;
};

// In kilobytes, of /proc/self/status.
double MemoryOf(const char* name) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(name, 0) == 0) return std::atof(line.c_str() + std::strlen(name));
  }
  Fail("no memory figures");
}

void ForgetPeak() {
  const int file = ::open("/proc/self/clear_refs", O_WRONLY | O_CLOEXEC);
  if (file < 0 || ::write(file, "5", 1) != 1) Fail("cannot reset the peak of memory");
  ::close(file);
}

// Counts requests until the time is over. How long the first takes is not measured.
class Judge {
 public:
  explicit Judge(const Plan& plan) : plan_(plan) {}

  // False when it was the last one.
  bool Take(long status, std::size_t bytes) {
    if (status != 200) Fail("status " + std::to_string(status));
    if (plan_.large ? bytes != kLarge : bytes == 0) Fail("an answer of the wrong size");
    if (begin_ == 0) {
      peak_ = MemoryOf("VmHWM:");
      begin_ = Now();
      return true;
    }
    ++requests_;
    bytes_ += static_cast<double>(bytes);
    seconds_ = Now() - begin_;
    return seconds_ < plan_.seconds;
  }
  void Print(double memoryBefore) const {
    const double grown = (peak_ - memoryBefore) / 1024;
    std::printf("{\"us\": %.3f, \"mb_per_s\": %.3f, \"peak_mb\": %.3f}\n",
                seconds_ / requests_ * 1e6, bytes_ / seconds_ / 1e6, grown);
  }

 private:
  const Plan& plan_;
  double begin_ = 0;
  double peak_ = 0;
  double seconds_ = 0;
  double requests_ = 0;
  double bytes_ = 0;
};

CAWThread& Adopt(const Plan& plan, int type) {
  auto* manager = CAWThreadManager::Instance();
  manager->AdoptCurrentThread(type);
  manager->GetThread(CAWThreadManager::TT_NETWORK)->SetSpin(plan.spin);
  manager->GetThread(type)->SetSpin(plan.spin);
  return *manager->GetThread(type);
}

// --- zarn ---

void RunZarn(const Plan& plan, Judge& judge) {
  CAWThread& main = Adopt(plan, CAWThreadManager::TT_MAIN);
  zarn::utils::CRestfulClient client;
  std::function<void()> ask = [&] {
    client.StartClient(plan.url, plan.large ? "GET" : "", plan.large ? "" : kJson,
                       [&](const std::string& answer, long result) {
                         if (judge.Take(result, answer.size()))
                           ask();
                         else
                           main.Stop();
                       });
  };
  ask();
  main.Run();
}

// --- shttp ---

class Asker : public shttp::IAWChannelSink, public wface::IAWTransportSink {
 public:
  Asker(const Plan& plan, Judge& judge, CAWThread& thread)
      : plan_(plan), judge_(judge), thread_(thread) {
    shttp::IAWHttpManager::Instance()->CreateHttpClient(client_);
  }
  void Ask() { client_->Open(plan_.url, this, 0); }

  void OnConnect(long, shttp::IAWChannelHttpClient* channel) override {
    channel_ = channel;
    channel_->OpenWithSink(this);
    channel_->SetRequest(plan_.large ? "GET" : "");
    CAWMessageBlock body(kJson, plan_.large ? 0 : std::strlen(kJson), CAWMessageBlock::borrow);
    channel_->SendData(body, nullptr);
  }
  void OnReceive(CAWMessageBlock& data, wface::IAWTransport*,
                 wface::CAWTransportParameter*) override {
    long result = 0;
    channel_->GetResult(result);
    channel_ = nullptr;
    if (judge_.Take(result, data.GetChainedLength()))
      Ask();
    else
      thread_.Stop();
  }
  void OnSend(wface::IAWTransport*, wface::CAWTransportParameter*) override {}
  void OnDisconnect(long, wface::IAWTransport*) override {}

 private:
  const Plan& plan_;
  Judge& judge_;
  CAWThread& thread_;
  keelbase::CAWAutoPtr<shttp::IAWHttpClient> client_;
  keelbase::CAWAutoPtr<shttp::IAWChannelHttpClient> channel_;
};

void RunShttp(const Plan& plan, Judge& judge) {
  CAWThread& network = Adopt(plan, CAWThreadManager::TT_NETWORK);
  Asker asker(plan, judge, network);
  asker.Ask();
  network.Run();
}

// --- curl ---

std::size_t Append(char* data, std::size_t size, std::size_t count, void* answer) {
  static_cast<std::string*>(answer)->append(data, size * count);
  return size * count;
}

void RunCurl(const Plan& plan, Judge& judge) {
  const std::unique_ptr<CURL, void (*)(CURL*)> curl(::curl_easy_init(), ::curl_easy_cleanup);
  const std::unique_ptr<curl_slist, void (*)(curl_slist*)> fields(
      ::curl_slist_append(nullptr, "Content-Type: application/json"), ::curl_slist_free_all);
  ::curl_easy_setopt(curl.get(), CURLOPT_URL, plan.url.c_str());
  ::curl_easy_setopt(curl.get(), CURLOPT_FRESH_CONNECT, 1L);
  ::curl_easy_setopt(curl.get(), CURLOPT_FORBID_REUSE, 1L);
  ::curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
  ::curl_easy_setopt(curl.get(), CURLOPT_ACCEPT_ENCODING, "gzip");
  ::curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, &Append);
  if (!plan.large) {
    ::curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, fields.get());
    ::curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, kJson);
  }
  for (bool more = true; more;) {
    std::string answer;
    ::curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &answer);
    const CURLcode result = ::curl_easy_perform(curl.get());
    if (result != CURLE_OK) Fail(::curl_easy_strerror(result));
    long status = 0;
    ::curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
    more = judge.Take(status, answer.size());
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) Fail("see the first lines of bench_rest.cpp");
  Plan plan;
  plan.who = argv[1];
  plan.large = std::strcmp(argv[2], "large") == 0;
  plan.url = std::string(argv[3]) + (plan.large ? "/large" : "/small");
  for (int i = 4; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--seconds") == 0) plan.seconds = std::atof(argv[i + 1]);
    if (std::strcmp(argv[i], "--spin") == 0)
      plan.spin = static_cast<unsigned>(std::atoi(argv[i + 1]));
  }
  Judge judge(plan);
  const double before = MemoryOf("VmRSS:");
  ForgetPeak();
  if (plan.who == "zarn")
    RunZarn(plan, judge);
  else if (plan.who == "shttp")
    RunShttp(plan, judge);
  else if (plan.who == "curl")
    RunCurl(plan, judge);
  else
    Fail("nobody is called " + plan.who);
  judge.Print(before);
  return 0;
}

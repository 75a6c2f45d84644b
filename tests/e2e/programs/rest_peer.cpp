// rest_peer.cpp - RESTful clients, told what to ask for. Callbacks run on the main thread.
//
// Events: answer {id, result, bytes, left} (left: requests without an answer); dropped.
// Commands: get ID URL (by one client again and again: a request that is under way is dropped);
//   fresh ID URL (by a client of its own, which is destroyed inside its callback);
//   drop (destroys the one client); limit MILLISECONDS (of each step); trust FILE.
#include <map>
#include <memory>
#include <string>

#include "Program.h"
#include "shttp/CAWHttpManager.h"
#include "sslutils/CAWSSLManager.h"
#include "zarn/utils/CRestfulClient.h"

namespace {

using e2e::Event;
using zarn::utils::CRestfulClient;

class Clients {
 public:
  void Start() {}

  void Command(const e2e::Words& words) {
    if (words[0] == "get") {
      if (client_ == nullptr) client_ = std::make_unique<CRestfulClient>();
      ++left_;
      client_->StartClient(
          words[2], "GET", "",
          [this, id = std::stoi(words[1])](const keelbase::CAWString& text, long result) {
            Tell(id, text, result);
          });
    } else if (words[0] == "fresh") {
      Fresh(std::stoi(words[1]), words[2]);
    } else if (words[0] == "drop") {
      Drop();
      Event("dropped");
    } else if (words[0] == "limit") {
      shttp::CAWHttpLimits limits;
      limits.connectMs = limits.sendMs = limits.answerMs =
          static_cast<std::uint32_t>(std::stoul(words[1]));
      shttp::IAWHttpManager::Instance()->SetLimits(limits);
    } else if (words[0] == "trust") {
      sslutils::IAWSSLManager::Instance()->SetTrustedCertificates(words[1]);
    }
  }

  void Finish() { Drop(); }

 private:
  void Fresh(int id, const std::string& url) {
    ++left_;
    fresh_[id] = std::make_unique<CRestfulClient>();
    fresh_[id]->StartClient(url, "GET", "",
                            [this, id](const keelbase::CAWString& text, long result) {
                              fresh_.erase(id);
                              Tell(id, text, result);
                            });
  }
  void Tell(int id, const keelbase::CAWString& text, long result) {
    --left_;
    Event("answer")
        .With("id", id)
        .With("result", result)
        .With("bytes", text.size())
        .With("left", left_);
  }
  void Drop() {
    using keelbase::CAWThreadManager;
    CAWThreadManager::Instance()->GetThread(CAWThreadManager::TT_NETWORK)->Call([this] {
      client_ = nullptr;
      fresh_.clear();
    });
  }

  int left_ = 0;
  std::unique_ptr<CRestfulClient> client_;
  std::map<int, std::unique_ptr<CRestfulClient>> fresh_;
};

}  // namespace

int main() {
  Clients clients;
  return e2e::Serve(clients, true);
}

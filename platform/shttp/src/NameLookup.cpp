// NameLookup.cpp - see NameLookup.h.
#include "NameLookup.h"

#include <netdb.h>
#include <netinet/in.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

namespace shttp {

using keelbase::CAWInetAddr;

namespace {

constexpr int kMaxAtOnce = 64;  // a thread each
std::atomic<int> underWay{0};

// Gives the place back however the lookup ends.
class Place {
 public:
  Place() : isFree_(underWay.fetch_add(1) < kMaxAtOnce) {}
  ~Place() { underWay.fetch_sub(1); }
  Place(const Place&) = delete;
  Place& operator=(const Place&) = delete;

  bool IsFree() const { return isFree_; }

 private:
  const bool isFree_;
};

// Why the system's resolver has found nothing.
int LookupError(int answer, int error) {
  if (answer == EAI_MEMORY) return ENOMEM;
  const bool isShort = error == EMFILE || error == ENFILE;
  return isShort || (answer == EAI_SYSTEM && error != 0) ? error : EADDRNOTAVAIL;
}

// 0, or an errno value.
int Resolve(const std::string& host, std::uint16_t port, CAWInetAddr& out) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;  // one entry an address, not one for each kind of socket
  addrinfo* found = nullptr;
  errno = 0;
  const int answer = ::getaddrinfo(host.c_str(), nullptr, &hints, &found);
  if (answer != 0) return LookupError(answer, errno);
  const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> list(found, &::freeaddrinfo);
  sockaddr_in first{};
  std::memcpy(&first, found->ai_addr, sizeof first);
  out = CAWInetAddr(ntohl(first.sin_addr.s_addr), port);
  return 0;
}

}  // namespace

// One lookup. All that its end needs is there before it begins.
class NameLookup::Search final : public keelbase::internal::LoopTask {
 public:
  Search(keelbase::internal::EventLoop& loop, std::string host, std::uint16_t port, Done done)
      : loop_(loop), host_(std::move(host)), port_(port), done_(std::move(done)) {}

  bool HasPlace() const { return place_->IsFree(); }

  // On a thread of its own.
  void Run(const std::shared_ptr<Search>& self) {
    error_ = Resolve(host_, port_, address_);
    place_.reset();
    self_ = self;
    if (!loop_.PostTask(*this)) self_ = nullptr;
  }
  void Cancel() { done_ = nullptr; }

 private:
  void OnLoopTask() override {
    const std::shared_ptr<Search> alive = std::move(self_);
    if (const Done tell = std::exchange(done_, nullptr)) tell(error_, address_);
  }
  void OnDropped() override { const std::shared_ptr<Search> last = std::move(self_); }
  bool OutlastsRun() const override { return true; }

  keelbase::internal::EventLoop& loop_;
  const std::string host_;
  const std::uint16_t port_;
  int error_ = 0;
  CAWInetAddr address_;
  std::optional<Place> place_{std::in_place};  // until the name is found
  Done done_;                                  // empty once it was called or cancelled
  std::shared_ptr<Search> self_;               // while it waits for the loop
};

int NameLookup::Start(keelbase::internal::EventLoop& loop, const std::string& host,
                      std::uint16_t port, Done done) {
  auto search = std::make_shared<Search>(loop, host, port, std::move(done));
  if (!search->HasPlace()) return EAGAIN;
  try {
    std::thread([search] { search->Run(search); }).detach();
  } catch (const std::system_error&) {
    return ENOMEM;
  }
  search_ = std::move(search);
  return 0;
}

void NameLookup::Cancel() {
  if (const auto search = std::move(search_)) search->Cancel();
}

}  // namespace shttp

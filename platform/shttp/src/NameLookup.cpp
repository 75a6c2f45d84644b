// NameLookup.cpp - see NameLookup.h.
#include "NameLookup.h"

#include <atomic>
#include <cerrno>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

namespace shttp {

using keelbase::CAWInetAddr;

namespace {

constexpr int kMostAtOnce = 64;  // a thread each
std::atomic<int> underWay{0};

// Gives the place back however the lookup ends.
class Place {
 public:
  Place() : isFree_(underWay.fetch_add(1) < kMostAtOnce) {}
  ~Place() { underWay.fetch_sub(1); }
  Place(const Place&) = delete;
  Place& operator=(const Place&) = delete;

  bool IsFree() const { return isFree_; }

 private:
  const bool isFree_;
};

}  // namespace

// One lookup. All that its end needs is there before it begins.
class NameLookup::Search final : public keelbase::internal::LoopTask {
 public:
  Search(keelbase::internal::EventLoop& loop, std::string host, std::uint16_t port, Done done)
      : loop_(loop), host_(std::move(host)), port_(port), done_(std::move(done)) {}

  bool HasPlace() const { return place_->IsFree(); }

  // On a thread of its own.
  void Run(const std::shared_ptr<Search>& self) {
    address_ = CAWInetAddr(host_.c_str(), port_);
    place_.reset();
    self_ = self;
    if (!loop_.PostTask(*this)) self_ = nullptr;
  }
  void Cancel() { done_ = nullptr; }

 private:
  void OnLoopTask() override {
    const std::shared_ptr<Search> alive = std::move(self_);
    if (const Done tell = std::exchange(done_, nullptr)) tell(address_);
  }
  void OnDropped() override { const std::shared_ptr<Search> last = std::move(self_); }
  bool OutlastsRun() const override { return true; }

  keelbase::internal::EventLoop& loop_;
  const std::string host_;
  const std::uint16_t port_;
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

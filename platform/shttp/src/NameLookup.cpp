// NameLookup.cpp - see NameLookup.h.
#include "NameLookup.h"

#include <atomic>
#include <cerrno>
#include <system_error>
#include <thread>
#include <utility>

#include "keelbase/internal/FunctionEvent.h"

namespace shttp {

using keelbase::CAWInetAddr;

namespace {

constexpr int kMostAtOnce = 64;  // a thread each
std::atomic<int> underWay{0};

// Gives the place back however the lookup ends.
struct Place {
  Place() = default;
  ~Place() { underWay.fetch_sub(1); }
  Place(const Place&) = delete;
  Place& operator=(const Place&) = delete;
};

}  // namespace

int NameLookup::Start(keelbase::internal::EventLoop& loop, const std::string& host,
                      std::uint16_t port, Done done) {
  const bool full = underWay.fetch_add(1) >= kMostAtOnce;
  auto place = std::make_unique<Place>();
  if (full) return EAGAIN;
  done_ = std::make_shared<Done>(std::move(done));
  try {
    std::thread([&loop, host, port, waiting = done_, place = std::move(place)]() mutable {
      const CAWInetAddr address(host.c_str(), port);
      place = nullptr;
      loop.Post(new keelbase::internal::FunctionEvent([waiting = std::move(waiting), address] {
        if (const Done tell = std::exchange(*waiting, nullptr)) tell(address);
      }));
    }).detach();
  } catch (const std::system_error&) {
    Cancel();
    return EAGAIN;
  }
  return 0;
}

void NameLookup::Cancel() {
  if (done_ != nullptr) *done_ = nullptr;
  done_ = nullptr;
}

}  // namespace shttp

// Conversation.h - one side of one connection: sends its script and checks the other's.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "Link.h"
#include "Program.h"
#include "Script.h"

namespace soak {

// What a process has done on all its connections together.
struct Totals {
  std::uint64_t sent = 0;
  std::uint64_t received = 0;
  std::uint64_t receivedBytes = 0;
};

// A message bears its number as tag, and as type how many messages have come so far: that is how
// the other side knows how much is under way. The conversation is over at the first thing that is
// wrong, which it tells as an event.
class Conversation {
 public:
  using Send = std::function<keelbase::AWResult(const zarn::tool::Message&)>;

  Conversation(std::uint64_t seed, Totals& totals, Send send)
      : seed_(seed), totals_(totals), send_(std::move(send)) {}

  // From now on there is something to say, first of all who speaks.
  void Begin(const Speaker& own) {
    own_.emplace(seed_, own);
    Say();
  }

  void SayUpTo(int count) {
    if (!own_) return;
    for (int i = 0; i < count && !isOver_ && MayCome(); ++i) Say();
  }

  // False for what must not come.
  bool Take(const zarn::tool::Message& message) {
    const std::uint64_t number = received_++;
    ++totals_.received;
    totals_.receivedBytes += message.data.size();
    if (message.tag != static_cast<std::uint32_t>(number)) return Wrong("tag", message.tag);
    const auto more = static_cast<std::uint16_t>(message.type - acknowledged_);
    if (more > sent_ - acknowledged_) return Wrong("type", message.type);
    acknowledged_ += more;
    if (number == 0) {
      Speaker speaker;
      if (!Script::ReadSpeaker(message.data, speaker)) return Wrong("size", message.data.size());
      others_.emplace(seed_, speaker);
      return true;
    }
    if (!others_) return false;  // told already
    const std::string_view expected = others_->GetMessage(number);
    if (message.data.size() != expected.size()) return Wrong("size", message.data.size());
    if (message.data != expected) return Wrong("bytes", number);
    return true;
  }

  // After Take: who the other is.
  const Speaker& GetOther() const { return others_->GetSpeaker(); }
  std::uint64_t GetSent() const { return sent_; }
  std::uint64_t GetReceived() const { return received_; }

  bool Wrong(const char* what, std::uint64_t value) {
    isOver_ = true;
    e2e::Event("wrong").With("number", received_ - 1).With(what, value);
    return false;
  }

 private:
  static constexpr std::uint64_t kWindow = 64;

  // As much as the window allows, and enough to let the other side's window open.
  bool MayCome() const {
    return sent_ - acknowledged_ < kWindow || received_ - acknowledgedByUs_ >= kWindow / 2;
  }

  // A send that fails is the first sign of a connection that has ended.
  void Say() {
    const zarn::tool::Message message{static_cast<std::uint16_t>(received_),
                                      static_cast<std::uint32_t>(sent_), own_->GetMessage(sent_)};
    if (send_(message) != keelbase::AW_OK) {
      isOver_ = true;
      return;
    }
    ++sent_;
    ++totals_.sent;
    acknowledgedByUs_ = received_;
  }

  const std::uint64_t seed_;
  Totals& totals_;
  const Send send_;
  std::optional<Script> own_;
  std::optional<Script> others_;
  bool isOver_ = false;
  std::uint64_t sent_ = 0;
  std::uint64_t received_ = 0;
  std::uint64_t acknowledged_ = 0;      // of what was sent, by the other side
  std::uint64_t acknowledgedByUs_ = 0;  // of what was received
};

}  // namespace soak

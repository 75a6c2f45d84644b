// FrameFilter.cpp - see FrameFilter.h.
#include "FrameFilter.h"

#include <cstddef>
#include <cstdint>

namespace ptcp {

namespace {

// As RFC 9000 numbers them.
enum FrameType : std::uint64_t {
  kPadding = 0x00,
  kPing = 0x01,
  kAck = 0x02,
  kAckWithCounts = 0x03,
  kResetStream = 0x04,
  kStopSending = 0x05,
  kCrypto = 0x06,
  kFirstStream = 0x08,
  kLastStream = 0x0f,
  kMaxData = 0x10,
  kMaxStreamData = 0x11,
  kMaxStreamsBothWays = 0x12,
  kMaxStreamsOneWay = 0x13,
  kDataBlocked = 0x14,
  kStreamDataBlocked = 0x15,
  kStreamsBlockedBothWays = 0x16,
  kStreamsBlockedOneWay = 0x17,
  kNewConnectionId = 0x18,
  kRetireConnectionId = 0x19,
  kPathChallenge = 0x1a,
  kPathResponse = 0x1b,
  kCloseByTransport = 0x1c,
  kCloseByApplication = 0x1d,
  kHandshakeDone = 0x1e,
};

// Flags of the stream frames.
constexpr std::uint64_t kHasOffset = 0x04;
constexpr std::uint64_t kHasLength = 0x02;

// Takes numbers and stretches from the front; once something is missing all is.
class Reader {
 public:
  explicit Reader(Bytes bytes) : rest_(bytes) {}

  bool IsAtEnd() const { return rest_.empty(); }
  bool IsGood() const { return good_; }
  std::size_t Left() const { return rest_.size(); }
  std::uint64_t Number() {
    if (rest_.empty()) return Missing();
    const std::size_t length = std::size_t{1} << (rest_[0] >> 6);
    if (rest_.size() < length) return Missing();
    std::uint64_t value = rest_[0] & 0x3F;
    for (std::size_t i = 1; i < length; ++i) value = value << 8 | rest_[i];
    rest_ = rest_.subspan(length);
    return value;
  }
  void Numbers(int count) {
    for (int i = 0; i < count; ++i) Number();
  }
  void Skip(std::uint64_t length) {
    if (length > rest_.size()) {
      Missing();
    } else {
      rest_ = rest_.subspan(static_cast<std::size_t>(length));
    }
  }

 private:
  std::uint64_t Missing() {
    good_ = false;
    rest_ = {};
    return 0;
  }

  Bytes rest_;
  bool good_ = true;
};

void SkipAcknowledgement(Reader& reader, bool withCounts) {
  reader.Numbers(2);
  const std::uint64_t ranges = reader.Number();
  reader.Number();
  for (std::uint64_t i = 0; i < ranges && reader.IsGood(); ++i) reader.Numbers(2);
  if (withCounts) reader.Numbers(3);
}

bool IsStream(std::uint64_t type) { return type >= kFirstStream && type <= kLastStream; }

struct Stretch {
  std::uint64_t begin;
  std::uint64_t length;
};
Stretch ReadStream(Reader& reader, std::uint64_t type) {
  reader.Number();
  const std::uint64_t begin = (type & kHasOffset) != 0 ? reader.Number() : 0;
  const std::uint64_t length = (type & kHasLength) != 0 ? reader.Number() : reader.Left();
  reader.Skip(length);
  return {begin, length};
}

// None of ours ever withdraws ids that the other side uses.
bool IsPlainNewId(Reader& reader) {
  reader.Number();
  const bool plain = reader.Number() == 0;
  reader.Skip(reader.Number());
  reader.Skip(16);
  return plain;
}

bool SkipFrame(Reader& reader, std::uint64_t type) {
  if (IsStream(type)) {
    ReadStream(reader, type);
    return true;
  }
  switch (type) {
    case kPadding:
    case kPing:
    case kHandshakeDone:
      return true;
    case kAck:
    case kAckWithCounts:
      SkipAcknowledgement(reader, type == kAckWithCounts);
      return true;
    case kResetStream:  // refused by the connection, which tells the peer
      reader.Numbers(3);
      return true;
    case kStopSending:
    case kMaxStreamData:
    case kStreamDataBlocked:
      reader.Numbers(2);
      return true;
    case kMaxData:
    case kMaxStreamsBothWays:
    case kMaxStreamsOneWay:
    case kDataBlocked:
    case kStreamsBlockedBothWays:
    case kStreamsBlockedOneWay:
    case kRetireConnectionId:
      reader.Number();
      return true;
    case kCrypto:
      reader.Number();
      reader.Skip(reader.Number());
      return true;
    case kNewConnectionId:
      return IsPlainNewId(reader);
    case kPathChallenge:
    case kPathResponse:
      reader.Skip(8);
      return true;
    case kCloseByTransport:
    case kCloseByApplication:
      reader.Numbers(type == kCloseByTransport ? 2 : 1);
      reader.Skip(reader.Number());
      return true;
    default:
      return false;
  }
}

}  // namespace

bool AreOurFrames(Bytes frames) {
  Reader reader(frames);
  while (!reader.IsAtEnd()) {
    if (!SkipFrame(reader, reader.Number()) || !reader.IsGood()) return false;
  }
  return true;
}

void ForEachStretch(Bytes frames,
                    const std::function<void(std::uint64_t begin, std::uint64_t end)>& visit) {
  Reader reader(frames);
  while (!reader.IsAtEnd()) {
    const std::uint64_t type = reader.Number();
    if (!IsStream(type)) {
      SkipFrame(reader, type);
      continue;
    }
    const Stretch stretch = ReadStream(reader, type);
    if (stretch.length != 0) visit(stretch.begin, stretch.begin + stretch.length);
  }
}

}  // namespace ptcp

// FrameFilter.cpp - see FrameFilter.h.
#include "FrameFilter.h"

#include <cstddef>
#include <cstdint>

namespace ptcp {

namespace {

// Takes numbers and stretches from the front; once something is missing all is.
class Reader {
 public:
  explicit Reader(Bytes bytes) : rest_(bytes) {}

  bool IsAtEnd() const { return rest_.empty(); }
  bool IsGood() const { return good_; }
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
  void SkipAll() { rest_ = {}; }

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

void SkipStream(Reader& reader, std::uint64_t type) {
  reader.Number();
  if ((type & 0x04) != 0) reader.Number();
  if ((type & 0x02) != 0) {
    reader.Skip(reader.Number());
  } else {
    reader.SkipAll();
  }
}

// None of ours ever withdraws ids that the other side uses.
bool IsPlainNewId(Reader& reader) {
  reader.Number();
  const bool plain = reader.Number() == 0;
  reader.Skip(reader.Number());
  reader.Skip(16);
  return plain;
}

bool SkipFrame(Reader& reader) {
  const std::uint64_t type = reader.Number();
  if (type >= 0x08 && type <= 0x0f) {
    SkipStream(reader, type);
    return true;
  }
  switch (type) {
    case 0x00:  // padding
    case 0x01:  // ping
    case 0x1e:  // the handshake is done
      return true;
    case 0x02:
    case 0x03:
      SkipAcknowledgement(reader, type == 0x03);
      return true;
    case 0x04:  // refused by the connection, which tells the peer
      reader.Numbers(3);
      return true;
    case 0x05:
      reader.Numbers(2);
      return true;
    case 0x06:
      reader.Number();
      reader.Skip(reader.Number());
      return true;
    case 0x11:
    case 0x15:
      reader.Numbers(2);
      return true;
    case 0x10:
    case 0x12:
    case 0x13:
    case 0x14:
    case 0x16:
    case 0x17:
    case 0x19:
      reader.Number();
      return true;
    case 0x18:
      return IsPlainNewId(reader);
    case 0x1a:
    case 0x1b:
      reader.Skip(8);
      return true;
    case 0x1c:
    case 0x1d:
      reader.Numbers(type == 0x1c ? 2 : 1);
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
    if (!SkipFrame(reader) || !reader.IsGood()) return false;
  }
  return true;
}

}  // namespace ptcp

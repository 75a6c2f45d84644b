// ChannelReceive_fuzz.cpp - frames and garbage, cut into pieces at random, through a channel: it
// must deliver what a plain decoder finds in the bytes as a whole.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "FakeIpc.h"
#include "keelbase/CAWTrace.h"
#include "zarn/utils/CZARNLibServerChannel.h"

namespace {

using keelbase::CAWMessageBlock;
using Message = std::tuple<std::uint16_t, std::uint32_t, std::string>;
using Messages = std::vector<Message>;

constexpr std::size_t kMaxPayload = 65523;
constexpr std::size_t kMaxBytes = 256 * 1024;

void Check(bool condition) {
  if (!condition) std::abort();
}

void Put(std::string& bytes, std::uint64_t value, int size) {
  while (size-- > 0) bytes.push_back(static_cast<char>(value >> (8 * size)));
}

std::uint64_t Get(std::string_view bytes, std::size_t offset, std::size_t size) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < size; ++i)
    value = value << 8 | static_cast<unsigned char>(bytes[offset + i]);
  return value;
}

std::string MakeBytes(FuzzedDataProvider& input) {
  std::string bytes;
  for (int items = input.ConsumeIntegralInRange(0, 20); items > 0; --items) {
    if (input.ConsumeIntegralInRange(0, 9) == 0) {
      bytes += input.ConsumeRandomLengthString(40);
      continue;
    }
    const bool isLong = input.ConsumeIntegralInRange(0, 7) == 0;
    const auto size = input.ConsumeIntegralInRange<std::size_t>(0, isLong ? kMaxPayload : 200);
    Put(bytes, input.ConsumeIntegral<std::uint16_t>(), 2);
    Put(bytes, size + 12, 2);
    Put(bytes, input.ConsumeIntegral<std::uint32_t>(), 4);
    Put(bytes, size, 4);
    bytes.append(size, static_cast<char>(items));
  }
  bytes.resize(std::min(bytes.size(), kMaxBytes));
  return bytes;
}

// Up to the first frame that is malformed or not all there.
Messages DecodeWhole(std::string_view bytes) {
  Messages messages;
  while (bytes.size() >= 12) {
    const std::uint64_t length = Get(bytes, 2, 2);
    const std::uint64_t size = Get(bytes, 8, 4);
    if (length > bytes.size() || length != size + 12) break;
    messages.emplace_back(static_cast<std::uint16_t>(Get(bytes, 0, 2)),
                          static_cast<std::uint32_t>(Get(bytes, 4, 4)), bytes.substr(12, size));
    bytes.remove_prefix(length);
  }
  return messages;
}

class Channel final : public zarn::utils::CZARNLibServerChannel {
 public:
  using CZARNLibServerChannel::CZARNLibServerChannel;
  void OnZARNMessage(std::uint16_t type, std::uint32_t tag, const char* data,
                     std::size_t size) override {
    Check((data == nullptr) == (size == 0));
    messages.emplace_back(type, tag, std::string(data == nullptr ? "" : data, size));
  }
  Messages messages;
};

// One receive event: a chain of one or two blocks, with or without room in front.
void Deliver(FuzzedDataProvider& input, Channel& channel, fipc::IAWIPCTransport* transport,
             std::string_view piece) {
  const std::size_t headroom = input.PickValueInArray<std::size_t>({0, 50, 4000});
  const bool two = piece.size() > 1 && input.ConsumeIntegralInRange(0, 7) == 0;
  const std::size_t first = two ? piece.size() / 2 : piece.size();
  const auto block = std::make_unique<CAWMessageBlock>(first, headroom);
  block->Write(piece.data(), first);
  if (two) {
    auto second = std::make_unique<CAWMessageBlock>(piece.size() - first);
    second->Write(piece.data() + first, piece.size() - first);
    block->Append(second.release());
  }
  channel.OnReceive(*block, transport, nullptr);
  Check(block->GetChainedLength() == 0);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  keelbase::IAWTraceManager::Instance()->SetSink([](std::uint32_t, std::string_view) {});
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  const std::string bytes = MakeBytes(input);
  const keelbase::CAWAutoPtr<zarn::test::FakeTransport> transport(new zarn::test::FakeTransport);
  Channel channel(transport.Get());
  const auto longest = input.PickValueInArray<std::size_t>({1, 7, 100, 5000, 65535});
  std::string_view left = bytes;
  for (int events = 0; !left.empty(); ++events) {
    // Single bytes all the way would take too long for the longest inputs.
    const std::size_t most = events < 300 ? longest : 65535;
    const auto length = std::min(left.size(), input.ConsumeIntegralInRange<std::size_t>(1, most));
    Deliver(input, channel, transport.Get(), left.substr(0, length));
    left.remove_prefix(length);
  }
  Check(channel.messages == DecodeWhole(bytes));
  return 0;
}

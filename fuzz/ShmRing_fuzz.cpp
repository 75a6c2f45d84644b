// ShmRing_fuzz.cpp - both ends of a ring in turn, while somebody else changes the shared words and
// bytes: whatever stands there, nothing outside the ring is read or written, and nothing is taken
// or given that the ring cannot hold.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "ShmRing.h"

namespace {

constexpr std::size_t kMaxSteps = 2000;

void Check(bool condition) {
  if (!condition) std::abort();
}

// The bytes stand in an allocation of their own, so that the sanitizer sees the first one outside.
struct Shared {
  explicit Shared(std::size_t size) : bytes(size) {}
  fshmipc::Ring Get() { return {&control, bytes.data(), bytes.size()}; }

  fshmipc::RingControl control{};
  std::vector<char> bytes;
};

// Anything, or something near what stands there.
std::uint64_t Position(FuzzedDataProvider& input, std::uint64_t now) {
  return input.ConsumeBool() ? input.ConsumeIntegral<std::uint64_t>()
                             : now + input.ConsumeIntegral<std::uint16_t>() - 0x8000;
}

void Scribble(FuzzedDataProvider& input, Shared& shared) {
  fshmipc::RingControl& control = shared.control;
  switch (input.ConsumeIntegralInRange(0, 6)) {
    case 0:
      control.head = Position(input, control.head);
      break;
    case 1:
      control.tail = Position(input, control.tail);
      break;
    case 2:
      control.readerSleeps = input.ConsumeIntegral<std::uint32_t>();
      break;
    case 3:
      control.writerWaits = input.ConsumeIntegral<std::uint32_t>();
      break;
    case 4:
      control.ended = input.ConsumeIntegral<std::uint32_t>();
      break;
    case 5:
      control.writing = input.ConsumeIntegral<std::uint32_t>();
      break;
    default:
      shared.bytes[input.ConsumeIntegralInRange<std::size_t>(0, shared.bytes.size() - 1)] = 'x';
  }
}

void WriteSome(FuzzedDataProvider& input, Shared& shared, fshmipc::RingWriter& writer) {
  const std::string text(input.ConsumeIntegralInRange<std::size_t>(0, 2 * shared.bytes.size()),
                         'w');
  const std::size_t before = writer.Unpublished();
  const std::size_t taken = writer.Write(text.data(), text.size());
  Check(taken <= std::min(text.size(), shared.bytes.size()));
  Check(writer.Unpublished() == before + taken);
}

void ReadSome(FuzzedDataProvider& input, Shared& shared, fshmipc::RingReader& reader) {
  reader.IsWriting();
  const std::size_t available = reader.Available();
  Check(available <= shared.bytes.size());
  Check(available == 0 || !reader.IsBroken());
  const auto length = input.ConsumeIntegralInRange<std::size_t>(0, available);
  std::vector<char> bytes(length);
  if (length == 0) return;
  reader.Read(bytes.data(), length);
  reader.ShallTellRoom(available - length);
  reader.ShallTellRoomForSure();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  Shared shared(std::size_t{1} << input.ConsumeIntegralInRange(0, 12));
  fshmipc::RingWriter writer(shared.Get());
  fshmipc::RingReader reader(shared.Get());
  for (std::size_t step = 0; step < kMaxSteps && input.remaining_bytes() != 0; ++step) {
    switch (input.ConsumeIntegralInRange(0, 7)) {
      case 0:
        WriteSome(input, shared, writer);
        break;
      case 1:
        writer.Publish();
        Check(writer.Unpublished() == 0);
        break;
      case 2:
        ReadSome(input, shared, reader);
        break;
      case 3:
        // One that sleeps has nothing to read, and is not broken.
        Check(!reader.Sleep() || (reader.Available() == 0 && !reader.IsBroken()));
        break;
      case 4:
        Check(writer.WaitForRoom() || writer.HasRoom());
        break;
      case 5:
        reader.HasEnded();
        break;
      default:
        Scribble(input, shared);
    }
  }
  return 0;
}

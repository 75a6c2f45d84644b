// ShmSegment.cpp - see ShmSegment.h.
#include "ShmSegment.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <bit>
#include <cerrno>
#include <new>
#include <utility>

#include "keelbase/internal/FileRoom.h"

namespace fshmipc {

namespace {

constexpr std::size_t kControlSize = 4096;
static_assert(2 * sizeof(RingControl) <= kControlSize);

constexpr std::uint32_t kMinRing = 64 * 1024;
constexpr std::uint32_t kMaxRing = 256 * 1024 * 1024;

// Neither smaller, so that the mapping stays whole, nor larger, nor otherwise.
constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;

constexpr std::size_t kStatBlock = 512;  // stat(2) counts in these

std::size_t SizeFor(std::size_t ringSize) { return kControlSize + 2 * ringSize; }

// Ordinary memory, of the right size and all of it reserved, that nobody can take away under us.
// Huge pages are refused: they can run out at a touch. We only look: a call that changes the file
// could wait for a lock that the peer holds.
bool IsSealedMemory(int file, std::size_t size) {
  struct stat status {};
  struct statfs system {};
  const int seals = ::fcntl(file, F_GET_SEALS);
  return seals >= 0 && (seals & kSeals) == kSeals && ::fstat(file, &status) == 0 &&
         S_ISREG(status.st_mode) && static_cast<std::size_t>(status.st_size) == size &&
         static_cast<std::size_t>(status.st_blocks) * kStatBlock >= size &&
         ::fstatfs(file, &system) == 0 && system.f_type == TMPFS_MAGIC;
}

}  // namespace

bool IsRingSize(std::uint32_t size) {
  return size >= kMinRing && size <= kMaxRing && std::has_single_bit(size);
}

ShmSegment::ShmSegment(ShmSegment&& other) noexcept
    : memory_(std::exchange(other.memory_, nullptr)), ringSize_(other.ringSize_) {}

ShmSegment& ShmSegment::operator=(ShmSegment&& other) noexcept {
  std::swap(memory_, other.memory_);
  std::swap(ringSize_, other.ringSize_);
  return *this;
}

int ShmSegment::Create(std::uint32_t ringSize, FileDescriptor& file) {
  const std::size_t size = SizeFor(ringSize);
  if (keelbase::internal::IsAboveFileLimit(size)) return EFBIG;
  FileDescriptor made(::memfd_create("zarn-shmipc", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  if (!made) return errno;
  if (::ftruncate(made.Get(), static_cast<off_t>(size)) != 0) return errno;
  if (const int error = keelbase::internal::ReserveRoom(made.Get(), size); error != 0) return error;
  if (::fcntl(made.Get(), F_ADD_SEALS, kSeals) != 0) return errno;
  if (const int error = Map(made, ringSize); error != 0) return error;
  file = std::move(made);
  return 0;
}

int ShmSegment::Attach(const FileDescriptor& file, std::uint32_t ringSize) {
  if (!IsRingSize(ringSize) || !IsSealedMemory(file.Get(), SizeFor(ringSize))) return EPROTO;
  return Map(file, ringSize);
}

int ShmSegment::Map(const FileDescriptor& file, std::uint32_t ringSize) {
  void* memory =
      ::mmap(nullptr, SizeFor(ringSize), PROT_READ | PROT_WRITE, MAP_SHARED, file.Get(), 0);
  if (memory == MAP_FAILED) return errno;
  Unmap();
  memory_ = static_cast<char*>(memory);
  ringSize_ = ringSize;
  return 0;
}

void ShmSegment::Unmap() {
  if (memory_ != nullptr) ::munmap(std::exchange(memory_, nullptr), SizeFor(ringSize_));
}

Ring ShmSegment::RingAt(std::size_t index) const {
  auto* controls = std::launder(reinterpret_cast<RingControl*>(memory_));
  return {controls + index, memory_ + kControlSize + index * ringSize_, ringSize_};
}

}  // namespace fshmipc
